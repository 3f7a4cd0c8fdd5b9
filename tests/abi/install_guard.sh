#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# A build that trusts the development key refuses "cmake --install" without the
# opt-in, names the options to set, and copies nothing before refusing.
set -euo pipefail
build=$1 embeds_dev_key=$2 allowed=$3
if [ "$embeds_dev_key" != 1 ]; then
    echo "this build embeds its own trusted key; nothing to refuse"
    exit 77
fi
if [ "$allowed" = ON ] || [ "$allowed" = 1 ] || [ "$allowed" = TRUE ]; then
    echo "this build was configured with TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY=ON"
    exit 77
fi
work=$(mktemp -d /tmp/tq-install-guard-XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir "$work/prefix"

if cmake --install "$build" --prefix "$work/prefix" >"$work/out" 2>&1; then
    echo "cmake --install succeeded with the development key and no opt-in"
    exit 1
fi
status=0
for option in TAVRO_QUENDA_TRUSTED_KEY TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY; do
    if ! grep -q "$option" "$work/out"; then
        echo "the refusal does not name $option:"
        status=1
    fi
done
if [ -n "$(find "$work/prefix" -mindepth 1 -print -quit)" ]; then
    echo "files were installed before the refusal:"
    find "$work/prefix" -mindepth 1
    status=1
fi
cat "$work/out"
exit $status
