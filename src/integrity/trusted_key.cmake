# SPDX-License-Identifier: LGPL-2.1-or-later
# The one OpenPGP key the library trusts is compiled in. A small tool built
# first reads the key packet for the fingerprint, key ID and creation time and
# writes them, with the key's bytes, into a generated header.
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

# A cross build runs the tool through its emulator (CMake puts it in front).
if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  message(FATAL_ERROR "A cross build runs tq_trusted_key_gen at build time: set CMAKE_CROSSCOMPILING_EMULATOR")
endif()
add_executable(tq_trusted_key_gen ${CMAKE_CURRENT_LIST_DIR}/trusted_key_gen.cpp)
target_link_libraries(tq_trusted_key_gen PRIVATE PkgConfig::LIBCRYPTO)
set(TQ_TRUSTED_KEY_HEADER ${PROJECT_BINARY_DIR}/generated/tavro_quenda_trusted_key.h)
add_custom_command(
  OUTPUT ${TQ_TRUSTED_KEY_HEADER}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/generated
  COMMAND tq_trusted_key_gen "${TAVRO_QUENDA_TRUSTED_KEY}" ${TQ_TRUSTED_KEY_HEADER} ${tq_is_dev_key}
  DEPENDS tq_trusted_key_gen "${TAVRO_QUENDA_TRUSTED_KEY}"
  COMMENT "Generating the trusted-key header"
  VERBATIM)
add_custom_target(tq_trusted_key DEPENDS ${TQ_TRUSTED_KEY_HEADER})
add_dependencies(tq_integrity tq_trusted_key)
