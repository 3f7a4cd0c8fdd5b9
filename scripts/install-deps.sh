#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# Installs the Debian packages that building and testing libtavro-quenda needs,
# when they are missing. Runs apt-get as root, or through sudo.
#   --fuzz   also the clang toolchain for the libFuzzer targets
#   --aarch64  the cross toolchain and emulator for scripts/test-aarch64.sh
set -eu

packages="cmake make g++ pkgconf
libglib2.0-dev libssl-dev libgpgme-dev libcjson-dev libblkid-dev libcdio-dev
libgtest-dev libgmock-dev libbenchmark-dev
gnupg openssl coreutils util-linux faketime dmidecode smartmontools ethtool
abigail-tools man-db groff-base debhelper dpkg-dev fakeroot lintian
jq bash-completion"
if [ "${1:-}" = "--fuzz" ]; then
    packages="$packages clang libclang-rt-14-dev"
fi
if [ "${1:-}" = "--aarch64" ]; then
    packages="$packages g++-aarch64-linux-gnu qemu-user-static"
fi

missing=""
for p in $packages; do
    if ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q "ok installed"; then
        missing="$missing $p"
    fi
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
    as_root=""
elif command -v sudo >/dev/null 2>&1; then
    as_root="sudo"
else
    echo "install-deps: need root (or sudo) to install:$missing" >&2
    exit 1
fi
echo "install-deps: installing$missing"
$as_root apt-get update -qq
# shellcheck disable=SC2086
DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends $missing
