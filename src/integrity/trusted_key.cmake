# SPDX-License-Identifier: LGPL-2.1-or-later
# The one OpenPGP key the library trusts is compiled in. A small tool run at
# configure time reads the key packet for the fingerprint, key ID and creation time and
# writes them, with the key's bytes, into a generated header; tests read
# kTrustedKeyIsDevelopment from it to skip what needs the development key's
# secret half.
set(TQ_DEVELOPMENT_KEY ${PROJECT_SOURCE_DIR}/tests/keys/test-only/dev-public.gpg)
if(NOT EXISTS "${TAVRO_QUENDA_TRUSTED_KEY}")
  message(FATAL_ERROR "TAVRO_QUENDA_TRUSTED_KEY: no such file: ${TAVRO_QUENDA_TRUSTED_KEY}")
endif()
file(SHA256 "${TAVRO_QUENDA_TRUSTED_KEY}" tq_key_hash)
file(SHA256 "${TQ_DEVELOPMENT_KEY}" tq_dev_key_hash)
set(tq_is_dev_key 0)
if(tq_key_hash STREQUAL tq_dev_key_hash)
  set(tq_is_dev_key 1)
  message(WARNING "Embedding the development OpenPGP key, whose secret half is public "
                  "(tests/keys/test-only). Never ship this build; set "
                  "TAVRO_QUENDA_TRUSTED_KEY to the distribution's own key. Installing it "
                  "fails unless TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY=ON.")
endif()
# A build that trusts the development key must not end up on a real system by
# accident: installing it fails unless asked for by name, at configure time or
# at install time (cmake -DTAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY=ON -P cmake_install.cmake).
# This rule comes before every other install rule, so nothing is copied first.
set_property(GLOBAL PROPERTY TQ_EMBEDS_DEVELOPMENT_KEY ${tq_is_dev_key})
if(tq_is_dev_key)
  install(CODE "
if(NOT DEFINED TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY)
  set(TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY ${TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY})
endif()
if(NOT TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY)
  message(FATAL_ERROR \"This build trusts the development OpenPGP key, whose secret half is \"
                      \"public. Reconfigure with -DTAVRO_QUENDA_TRUSTED_KEY=/path/to/your-key.gpg, \"
                      \"or, for a test installation only, with -DTAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY=ON.\")
endif()")
endif()
# Re-run the check above when the key file changes.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${TAVRO_QUENDA_TRUSTED_KEY}")

# The generator is compiled and run at configure time, so that a key that does
# not fit or cannot encrypt stops the configuration with the reason. A cross
# build runs it through its emulator.
if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(FATAL_ERROR "A cross build runs tq_trusted_key_gen at configure time: set CMAKE_CROSSCOMPILING_EMULATOR")
endif()
set(TQ_TRUSTED_KEY_HEADER ${PROJECT_BINARY_DIR}/generated/tavro_quenda_trusted_key.h)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/generated)
try_run(tq_key_run tq_key_compiled
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/trusted_key_gen.cpp
  CXX_STANDARD 20
  LINK_LIBRARIES PkgConfig::LIBCRYPTO
  NO_CACHE
  COMPILE_OUTPUT_VARIABLE tq_key_compile_output
  RUN_OUTPUT_VARIABLE tq_key_run_output
  ARGS "${TAVRO_QUENDA_TRUSTED_KEY}" "${TQ_TRUSTED_KEY_HEADER}.new" ${tq_is_dev_key})
if(NOT tq_key_compiled)
  message(FATAL_ERROR "Could not build tq_trusted_key_gen:\n${tq_key_compile_output}")
endif()
if(NOT tq_key_run EQUAL 0)
  string(STRIP "${tq_key_run_output}" tq_key_run_output)
  message(FATAL_ERROR "TAVRO_QUENDA_TRUSTED_KEY refused: ${tq_key_run_output}")
endif()
# Rewritten only when it changes, so that a reconfiguration rebuilds nothing.
file(COPY_FILE ${TQ_TRUSTED_KEY_HEADER}.new ${TQ_TRUSTED_KEY_HEADER} ONLY_IF_DIFFERENT)
file(REMOVE ${TQ_TRUSTED_KEY_HEADER}.new)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/trusted_key_gen.cpp)
