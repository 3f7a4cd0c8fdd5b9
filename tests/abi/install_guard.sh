#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# A build that trusts the development key refuses "cmake --install" without the
# opt-in, names the options to set, and copies nothing before refusing.
#   install_guard.sh BUILD EMBEDS_DEVELOPMENT_KEY ALLOW_DEVELOPMENT_KEY
set -euo pipefail
[ "$2" = 1 ] || { echo "this build embeds its own trusted key; nothing to refuse"; exit 77; }
case $3 in ON | 1 | TRUE) echo "this build allows installing the development key"; exit 77 ;; esac
work=$(mktemp -d /tmp/tq-install-guard-XXXXXX)
trap 'rm -rf "$work"' EXIT
if cmake --install "$1" --prefix "$work/prefix" 2>&1 | tee "$work/out"; then exit 1; fi
grep -q TAVRO_QUENDA_TRUSTED_KEY "$work/out"
grep -q TAVRO_QUENDA_ALLOW_DEVELOPMENT_KEY "$work/out"
[ -z "$(ls -A "$work/prefix" 2>/dev/null)" ]
