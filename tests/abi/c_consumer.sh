#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Installs the build into a scratch prefix, compiles consumer.c as C against
# the installed header through pkg-config, and runs it.
#   c_consumer.sh BUILD SOURCE EXTRA_FLAGS [CC [EMULATOR...]]
# A cross build names its compiler and the emulator that runs the consumer.
set -euo pipefail
build=$1 source=$2 extra_flags=${3:-} compiler=${4:-cc}
shift $(($# < 4 ? $# : 4))
emulator=("$@")
# With PKG_CONFIG_SYSROOT_DIR (a target's tree), pkg-config moves every path
# into the tree but one that is in it already: the scratch prefix goes there.
scratch=/tmp
if [ -n "${PKG_CONFIG_SYSROOT_DIR:-}" ]; then
    scratch=$PKG_CONFIG_SYSROOT_DIR/tmp
    mkdir -p "$scratch"
fi
work=$(mktemp -d "$scratch/tq-consumer-XXXXXX")
trap 'rm -rf "$work"' EXIT

# A test installation: opt in to installing the development key, if embedded.
cmake -DCMAKE_INSTALL_PREFIX="$work/prefix" -DTAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY=ON \
      -P "$build/cmake_install.cmake" >/dev/null
pc=$(find "$work/prefix" -name tavro-quenda.pc | head -n 1)
# The file names the configured prefix; point it at the scratch one.
sed -i "s|^prefix=.*|prefix=$work/prefix|" "$pc"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$pc")
pkg="pkg-config"
# shellcheck disable=SC2086
"$compiler" -std=c11 -Wall -Wextra -Werror $extra_flags "$source" \
   $($pkg --cflags tavro-quenda) $($pkg --libs tavro-quenda) -o "$work/consumer"
LD_LIBRARY_PATH="$($pkg --variable=libdir tavro-quenda)" "${emulator[@]}" "$work/consumer"
