#!/bin/sh
# SPDX-License-Identifier: LGPL-2.1-or-later
# Times file_check_sha256 against `openssl dgst -sha256` on the same 1 GiB
# file in the page cache, several rounds each, and prints the ratio of the
# best times. Usage: integrity_digest_ratio.sh <path of bench_integrity> [rounds]
set -eu
bench=$1
rounds=${2:-5}
file=$(mktemp /tmp/tq-digest-ratio-XXXXXX)
trap 'rm -f "$file"' EXIT INT TERM
head -c 1073741824 /dev/urandom > "$file"
cat "$file" > /dev/null   # into the page cache

best_lib=
best_ossl=
i=0
while [ "$i" -lt "$rounds" ]; do
    # Both timed the same way, as whole processes.
    start=$(date +%s.%N)
    TQ_DIGEST_FILE=$file "$bench" --digest-once > /dev/null
    end=$(date +%s.%N)
    lib=$(echo "$end - $start" | bc -l)
    start=$(date +%s.%N)
    openssl dgst -sha256 "$file" > /dev/null
    end=$(date +%s.%N)
    ossl=$(echo "$end - $start" | bc -l)
    echo "round $i: library ${lib}s, openssl ${ossl}s"
    if [ -z "$best_lib" ] || [ "$(echo "$lib < $best_lib" | bc -l)" = 1 ]; then best_lib=$lib; fi
    if [ -z "$best_ossl" ] || [ "$(echo "$ossl < $best_ossl" | bc -l)" = 1 ]; then best_ossl=$ossl; fi
    i=$((i + 1))
done
echo "best: library ${best_lib}s, openssl ${best_ossl}s, ratio $(echo "scale=3; $best_lib / $best_ossl" | bc -l)"
