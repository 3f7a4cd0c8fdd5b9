#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Renders one manual page the way man(1) shows it, with groff's warnings on;
# any warning, or an empty page, fails.
set -euo pipefail
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT
lines=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 "$1" 2>"$errors" | wc -l)
cat "$errors"
echo "$1: $lines lines"
[ ! -s "$errors" ] && [ "$lines" -ge 10 ]
