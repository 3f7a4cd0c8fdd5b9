#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Size of the test suite against the code it tests: non-blank, non-comment
# lines of the tracked C and C++ sources under tests/ against src/, cli/ and
# include/ together (fuzz/ and bench/ are neither). Recorded test data under
# tests/data and tests/*/data is counted on its own line: it is data, not tests.
# With --check, exits 1 when the ratio is above 0.40.
set -euo pipefail
cd "$(dirname "$0")/.."

sources() { git ls-files -- "$@" | grep -E '\.(c|cc|cpp|h|hpp)$' || true; }
# Lines that are neither blank nor a whole-line // comment.
count() { local n=0 f; while read -r f; do [ -f "$f" ] && n=$((n + $(grep -cvE '^\s*(//.*)?$' "$f" || true))); done; echo "$n"; }

code=$(sources src cli include | count)
tests=$(sources tests | count)
data_files=$(git ls-files -- 'tests/data' 'tests/*/data' | wc -l)
data=$(git ls-files -z -- 'tests/data' 'tests/*/data' | xargs -0 cat | grep -cvE '^\s*$' || true)
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", c ? t / c : 0 }')

printf 'code (src/, cli/, include/): %d lines\n' "$code"
printf 'tests (tests/):              %d lines\n' "$tests"
printf 'ratio:                       %s (at most 0.40)\n' "$ratio"
printf 'test data (tests/data):      %d lines in %d files, not counted above\n' "$data" "$data_files"

if [ "${1:-}" = --check ]; then
    awk -v r="$ratio" 'BEGIN { exit !(r <= 0.40) }'
fi
