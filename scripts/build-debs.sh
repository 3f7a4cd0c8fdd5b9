#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Builds the Debian packages from a scratch copy of this tree (nothing is
# written into the tree), puts them into OUTDIR and checks them with lintian.
#   scripts/build-debs.sh --trusted-key KEY.gpg OUTDIR   packages to ship
#   scripts/build-debs.sh --devkey OUTDIR                 a test build that trusts
#                                                         the development key
#   --check   also run the test suite inside the package build (default: skip
#             it, as CI has run the suite already)
# lintian may report no error and no warning other than
# initial-upload-closes-no-bugs.
set -euo pipefail
key="" devkey=0 check=0 out=""
while [ $# -gt 0 ]; do
    case $1 in
        --trusted-key) key=$(realpath "$2"); shift 2 ;;
        --devkey) devkey=1; shift ;;
        --check) check=1; shift ;;
        -*) echo "build-debs: unknown option $1" >&2; exit 2 ;;
        *) out=$1; shift ;;
    esac
done
if [ -z "$out" ] || { [ -z "$key" ] && [ $devkey -eq 0 ]; }; then
    echo "usage: build-debs.sh (--trusted-key KEY.gpg | --devkey) [--check] OUTDIR" >&2
    exit 2
fi
mkdir -p "$out"
out=$(realpath "$out")
cd "$(dirname "$0")/.."

work=$(mktemp -d /tmp/tq-debs-XXXXXX)
trap 'rm -rf "$work"' EXIT
# The suite runs the tool as an unprivileged user too, which must reach it.
chmod 0755 "$work"
src="$work/libtavro-quenda"
mkdir "$src"
# The tracked and the new files of the tree, as they are now; no build output.
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    git ls-files -z --cached --others --exclude-standard |
        tar --null --ignore-failed-read -T - -cf - | tar -C "$src" -xf -
else
    tar -C . --exclude='./build*' --exclude=./.git -cf - . | tar -C "$src" -xf -
fi

options="parallel=$(nproc)"
profiles=""
if [ $devkey -eq 1 ]; then
    profiles="pkg.libtavro-quenda.devkey"
else
    options="$options trusted-key=$key"
fi
if [ $check -eq 0 ]; then
    options="$options nocheck"
    profiles="${profiles:+$profiles,}nocheck"
fi

echo "build-debs: dpkg-buildpackage in $src (DEB_BUILD_OPTIONS='$options'${profiles:+, profiles $profiles})"
(cd "$src" && DEB_BUILD_OPTIONS="$options" dpkg-buildpackage -us -uc -b ${profiles:+-P"$profiles"}) \
    >"$work/build.log" 2>&1 || {
    tail -n 60 "$work/build.log"
    cp "$work/build.log" "$out/build.log"
    echo "build-debs: package build failed; the whole log is $out/build.log" >&2
    exit 1
}

changes=$(ls "$work"/*.changes)
for f in "$work"/*.deb "$work"/*.buildinfo "$changes"; do
    cp "$f" "$out/"
done
ls -l "$out"/*.deb

if [ $check -eq 1 ]; then
    echo "build-debs: the test suite inside the package build"
    grep -E '^[0-9]+% tests passed|^The following tests|^[[:space:]]+[0-9]+ - |^\[  SKIPPED \] |Test +#[0-9]+: .*(Skipped|Not Run)' \
         "$work/build.log" || true
fi

echo "build-debs: the installed tool does not depend on where it was built"
dpkg-deb --fsys-tarfile "$work"/tavro-quenda-tools_*.deb | tar -xO ./usr/bin/tavro-quenda >"$work/tool"
if grep -a -q -e "$work" -e '$ORIGIN' "$work/tool" || readelf -dW "$work/tool" | grep -q -E 'RPATH|RUNPATH'; then
    echo "build-debs: usr/bin/tavro-quenda carries an RPATH or the build directory's path" >&2
    exit 1
fi

echo "build-debs: purging libtavro-quenda-common removes the trace log directory"
mkdir -p "$work/root/var/log/tavro-quenda" "$work/control"
touch "$work/root/var/log/tavro-quenda/libtavro-quenda.log" "$work/root/var/log/tavro-quenda/libtavro-quenda.log.2.gz"
dpkg-deb -e "$work"/libtavro-quenda-common_*.deb "$work/control"
DPKG_ROOT="$work/root" sh "$work/control/postrm" remove
[ -d "$work/root/var/log/tavro-quenda" ] || { echo "build-debs: remove (not purge) took the logs" >&2; exit 1; }
DPKG_ROOT="$work/root" sh "$work/control/postrm" purge
if [ -e "$work/root/var/log/tavro-quenda" ]; then
    echo "build-debs: purge left /var/log/tavro-quenda" >&2
    exit 1
fi

echo "build-debs: lintian"
lintian_out="$work/lintian.txt"
lintian --display-info --tag-display-limit 0 "$out/$(basename "$changes")" >"$lintian_out" 2>&1 || true
cat "$lintian_out"
if grep -E '^[EW]: ' "$lintian_out" | grep -v -E ' (initial-upload-closes-no-bugs)( |$)' >/dev/null; then
    echo "build-debs: lintian reports errors or warnings (above)" >&2
    exit 1
fi
echo "build-debs: packages in $out; lintian reports no error and no unexpected warning"
