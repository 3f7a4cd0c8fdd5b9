#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Size of the test suite against the code it tests: non-blank, non-comment
# lines of the tracked test sources under tests/ (C, C++, shell and Python)
# against the C and C++ of src/, cli/ and include/ together (fuzz/ and bench/
# are neither; nor is CMake). Recorded test data under tests/data and
# tests/*/data is counted on its own line: it is data, not tests.
# With --check, exits 1 when the ratio is above 0.40.
set -euo pipefail
cd "$(dirname "$0")/.."

sources() { git ls-files -- "$@" | grep -vE '^tests/([^/]+/)?data/' | grep -E "\\.($ext)\$" || true; }
# Lines that are neither blank nor a whole-line comment (// in C and C++, # in
# shell and Python, where a first-line #! counts as a comment too).
count() {
    local n=0 f comment
    while read -r f; do
        case "$f" in *.sh | *.py) comment='#' ;; *) comment='//' ;; esac
        [ -f "$f" ] && n=$((n + $(grep -cvE "^\s*($comment.*)?\$" "$f" || true)))
    done
    echo "$n"
}

ext='c|cc|cpp|h|hpp'
code=$(sources src cli include | count)
ext='c|cc|cpp|h|hpp|sh|py'
tests=$(sources tests | count)
data_files=$(git ls-files -- 'tests/data' 'tests/*/data' | wc -l)
data=$(git ls-files -z -- 'tests/data' 'tests/*/data' | xargs -0 cat | grep -cvE '^\s*$' || true)
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.2f", c ? t / c : 0 }')

printf 'code (src/, cli/, include/): %d lines\n' "$code"
printf 'tests (tests/):              %d lines\n' "$tests"
printf 'ratio:                       %s (at most 0.40)\n' "$ratio"
printf 'test data (tests/data):      %d lines in %d files, not counted above\n' "$data" "$data_files"

if [ "${1:-}" = --check ]; then
    # Exact, not the rounded figure printed above.
    [ $((tests * 100)) -le $((code * 40)) ]
fi
