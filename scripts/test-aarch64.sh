#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Cross-builds the library, the tool and the tests for AArch64 (glibc) and runs
# the whole test suite under qemu-aarch64-static.
#   scripts/test-aarch64.sh [BUILD_DIR]      (default: build-aarch64)
# The arm64 libraries come from Debian's arm64 packages, unpacked into a tree
# of their own under BUILD_DIR (BUILD_DIR/sysroot). They are not installed on
# this machine: some of their -dev packages cannot sit beside the native ones,
# and apt would remove those.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath -m "${1:-build-aarch64}")
jobs=$(nproc)
sysroot=$build/sysroot
apt_dir=$build/apt

# The arm64 packages the build and the tests link or preload (apt adds what
# they depend on), and the C++ runtime. libfaketime: faketime names its
# preload library through the dynamic linker's $LIB, which an arm64 program
# finds in the tree.
target_packages="libglib2.0-dev libssl-dev libgpgme-dev libcjson-dev libblkid-dev libcdio-dev
libgtest-dev libgmock-dev libfaketime libstdc++6"

./scripts/install-deps.sh
./scripts/install-deps.sh --aarch64

# A tree from an earlier run is used again if it holds the same packages.
if [ "$(cat "$sysroot/.complete" 2>/dev/null)" != "$target_packages" ]; then
    echo "=== arm64 libraries into $sysroot"
    rm -rf "$sysroot" "$apt_dir"
    mkdir -p "$apt_dir"/{etc/apt/apt.conf.d,etc/apt/preferences.d,etc/apt/sources.list.d} \
             "$apt_dir"/var/lib/apt/lists/partial "$apt_dir"/var/cache/apt/archives/partial \
             "$apt_dir"/var/lib/dpkg "$sysroot"
    # A private apt: this machine's package sources, arm64 only, nothing
    # installed; it only downloads.
    : > "$apt_dir/var/lib/dpkg/status"
    [ -f /etc/apt/sources.list ] && cp /etc/apt/sources.list "$apt_dir/etc/apt/"
    find /etc/apt/sources.list.d -maxdepth 1 \( -name '*.list' -o -name '*.sources' \) \
         -exec cp {} "$apt_dir/etc/apt/sources.list.d/" \;
    cat > "$apt_dir/apt.conf" <<EOF
Dir "$apt_dir/";
Dir::State::status "$apt_dir/var/lib/dpkg/status";
Dir::Etc::Trusted "/etc/apt/trusted.gpg";
Dir::Etc::TrustedParts "/etc/apt/trusted.gpg.d/";
APT::Architecture "arm64";
APT::Architectures { "arm64"; };
APT::Install-Recommends "false";
APT::Sandbox::User "$(id -un)";
EOF
    export APT_CONFIG=$apt_dir/apt.conf
    apt-get update -qq
    # shellcheck disable=SC2086
    apt-get install --download-only -qq -y $target_packages >/dev/null
    unset APT_CONFIG
    # Libraries and headers are all the build and the emulator need: the
    # interpreters and tools that come along stay packed.
    for deb in "$apt_dir"/var/cache/apt/archives/*.deb; do
        case $(basename "$deb") in
            libperl* | libpython* ) ;;
            lib* | linux-libc-dev_*) dpkg-deb -x "$deb" "$sysroot" ;;
        esac
    done
    echo "$target_packages" > "$sysroot/.complete"
    echo "(arm64 libraries ready after ${SECONDS}s)"
fi

echo "=== cross build"
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" \
      -DTQ_AARCH64_SYSROOT="$sysroot" -DTAVRO_QUENDA_BENCH=OFF
cmake --build "$build" -j"$jobs"
echo "(cross build done after ${SECONDS}s)"

echo "=== test suite under qemu-aarch64-static"
status=0
ctest --test-dir "$build" -j"$jobs" --output-on-failure || status=$?
echo "(test suite done after ${SECONDS}s)"
echo "=== skipped tests, and why"
awk '/^[0-9]+\/[0-9]+ Test: / { name = $3 }
     /: Skipped$/ { getline reason; print "  " name ": " reason }' "$build/Testing/Temporary/LastTest.log"
exit $status
