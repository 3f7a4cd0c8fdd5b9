# SPDX-License-Identifier: LGPL-2.1-or-later
# Cross-builds for 64-bit Arm Linux (glibc) with Debian's cross compiler
# (g++-aarch64-linux-gnu):
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
#         -DTQ_AARCH64_SYSROOT=/path/to/arm64/tree
# TQ_AARCH64_SYSROOT is a tree holding the arm64 builds of the libraries
# (scripts/test-aarch64.sh unpacks one from Debian's arm64 packages). Without
# it, the arm64 packages must be installed on this machine (multiarch).
# Programs of the build (the trusted-key generator at build time, the tests)
# run through qemu-aarch64-static.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# try_compile projects read this file again; hand the tree on to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TQ_AARCH64_SYSROOT)

if(TQ_AARCH64_SYSROOT)
  set(CMAKE_SYSROOT "${TQ_AARCH64_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH "${TQ_AARCH64_SYSROOT}")
  # The tree's .pc files name paths as installed; pkg-config moves them into it.
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TQ_AARCH64_SYSROOT}")
  set(ENV{PKG_CONFIG_LIBDIR}
      "${TQ_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${TQ_AARCH64_SYSROOT}/usr/share/pkgconfig")
  # The emulator loads the dynamic linker and libraries from the tree.
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static -L "${TQ_AARCH64_SYSROOT}")
else()
  set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
endif()

# Libraries, headers and CMake packages of the target; programs of this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
