#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Installs the build into a scratch prefix, compiles SOURCE as C against the
# installed header through pkg-config, and runs it.
#   c_consumer.sh BUILD SOURCE EXTRA_FLAGS [CC [EMULATOR...]]
# A cross build names its compiler and the emulator that runs the consumer.
set -euo pipefail
build=$1 source=$2 extra_flags=${3:-} compiler=${4:-cc}
shift $(($# < 4 ? $# : 4))
# With PKG_CONFIG_SYSROOT_DIR (a target's tree), pkg-config moves every path
# into the tree but one that is in it already: the scratch prefix goes there.
mkdir -p "${PKG_CONFIG_SYSROOT_DIR:-}/tmp"
work=$(mktemp -d "${PKG_CONFIG_SYSROOT_DIR:-}/tmp/tq-consumer-XXXXXX")
trap 'rm -rf "$work"' EXIT
# A test installation: opt in to installing the development key, if embedded.
cmake -DCMAKE_INSTALL_PREFIX="$work/prefix" -DTAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY=ON \
      -P "$build/cmake_install.cmake" >/dev/null
PKG_CONFIG_PATH=$(find "$work/prefix" -name tavro-quenda.pc -printf %h) && export PKG_CONFIG_PATH
sed -i "s|^prefix=.*|prefix=$work/prefix|" "$PKG_CONFIG_PATH/tavro-quenda.pc" # it names the configured prefix
# shellcheck disable=SC2086,SC2046
"$compiler" -std=c11 -Wall -Wextra -Werror $extra_flags "$source" $(pkg-config --cflags --libs tavro-quenda) \
    -o "$work/consumer"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir tavro-quenda) "$@" "$work/consumer"
