#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Renders one manual page the way man(1) shows it, with groff's warnings on;
# any warning, or an empty page, fails.
set -euo pipefail
page=$1
errors=$(mktemp)
trap 'rm -f "$errors"' EXIT
lines=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 "$page" 2>"$errors" | wc -l)
if [ -s "$errors" ]; then
    echo "$page: warnings while rendering:"
    cat "$errors"
    exit 1
fi
if [ "$lines" -lt 10 ]; then
    echo "$page: rendered to $lines lines"
    exit 1
fi
echo "$page: $lines lines, no warnings"
