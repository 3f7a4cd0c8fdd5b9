#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Compares the dynamic symbol table of the shared library with the list of
# names that must be exported, and that list with the public header.
set -euo pipefail
lib=$1 list=$2 header=$3

exported=$(nm -D --defined-only "$lib" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort)
listed=$(grep -v '^$' "$list" | sort)
declared=$(sed -n -e 's/^TAVRO_QUENDA_API [^(]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)(.*/\1/p' \
                  -e 's/^TAVRO_QUENDA_API extern [^;]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)\[.*/\1/p' "$header" | sort)

status=0
if ! diff <(echo "$listed") <(echo "$exported") >/tmp/abi-diff.$$; then
    echo "exported symbols differ from the list ('<' listed only, '>' exported only):"
    cat /tmp/abi-diff.$$
    status=1
fi
if ! diff <(echo "$listed") <(echo "$declared") >/tmp/abi-diff.$$; then
    echo "public header differs from the list ('<' listed only, '>' declared only):"
    cat /tmp/abi-diff.$$
    status=1
fi
rm -f /tmp/abi-diff.$$

# Calls (and the one exported constant) inside the library bind to its own
# definitions: no dynamic relocation names an exported symbol.
relocated=$(readelf -rW "$lib" | awk 'NF >= 5 && $1 ~ /^[0-9a-f]+$/ { sub(/@.*/, "", $5); print $5 }' | sort -u)
self=$(comm -12 <(echo "$listed") <(echo "$relocated"))
if [ -n "$self" ]; then
    echo "relocations to the library's own exported names (a program could replace them):"
    echo "$self"
    status=1
fi

soname=$(objdump -p "$lib" | awk '$1 == "SONAME" { print $2 }')
if [ "$soname" != "libtavro-quenda.so.1" ]; then
    echo "soname is '$soname', not libtavro-quenda.so.1"
    status=1
fi
[ $status -eq 0 ] && echo "$(echo "$exported" | wc -l) names exported, as listed and declared"
exit $status
