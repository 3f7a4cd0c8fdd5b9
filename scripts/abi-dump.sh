#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# The ABI baseline of libtavro-quenda.so.1, and the check against it.
#   scripts/abi-dump.sh          rewrite tests/abi/libtavro-quenda.so.1.<arch>.abi
#   scripts/abi-dump.sh --check  compare the current tree with it (abidiff)
# A deliberate ABI change reruns this script without --check and commits the
# new baseline with the change (and updates debian/libtavro-quenda1.symbols).
#
# The dump comes from a build of its own (ABI_BUILD_DIR, default build-abi):
# unoptimised with full debug information, and with source paths made relative
# so that the baseline does not depend on where the tree is checked out.
#
# Why these choices: libabigail merges the declarations of a function that
# several translation units see and keeps the first unit's in path order. A unit
# that only calls an exported function carries a declaration without a symbol;
# when it sorts before the defining unit (disk_identity.cpp before
# root_device.cpp, anything under disk/ before foundation/), the function's
# types were not tied to its symbol: 11 of the 69 names, among them quenda_trace,
# file_stat and harddisk_id. --exported-interfaces-only builds declarations only
# from the definitions of exported symbols, which cures that. An optimised build
# still hides a few more (a function inlined into its callers keeps only an
# abstract description), hence -O0 with full debug information.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
mode=${1:-dump}
arch=$(uname -m)
baseline=tests/abi/libtavro-quenda.so.1.$arch.abi
build=${ABI_BUILD_DIR:-build-abi}

if [ "$mode" = --check ] && [ ! -f "$baseline" ]; then
    echo "abi-dump: no baseline for $arch ($baseline); nothing to compare"
    exit 0
fi

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=OFF -DTAVRO_QUENDA_BENCH=OFF \
      -DCMAKE_C_FLAGS="-fdebug-prefix-map=$src=." -DCMAKE_CXX_FLAGS="-fdebug-prefix-map=$src=." >/dev/null
cmake --build "$build" -j"$(nproc)" --target tavro-quenda >/dev/null

dump() {
    abidw --headers-dir include --drop-private-types --exported-interfaces-only --no-corpus-path --no-comp-dir-path \
          --no-show-locs --no-elf-needed --type-id-style hash \
          --out-file "$1" "$build/libtavro-quenda.so.1"
}

if [ "$mode" = --check ]; then
    current=$(mktemp)
    trap 'rm -f "$current"' EXIT
    dump "$current"
    if abidiff "$baseline" "$current"; then
        echo "abi-dump: ABI unchanged from $baseline"
    else
        echo "abi-dump: the ABI differs from $baseline (above). If that is deliberate," \
             "rerun scripts/abi-dump.sh and commit the new baseline." >&2
        exit 1
    fi
else
    dump "$baseline"
    echo "abi-dump: wrote $baseline"
fi
