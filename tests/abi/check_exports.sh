#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# The shared library exports exactly the names of the list, which the public
# header declares, under the soname libtavro-quenda.so.1; and no dynamic
# relocation names one of them: the library's calls (and its one exported
# constant) bind to its own definitions, which a program cannot replace.
set -euo pipefail
lib=$1 list=$2 header=$3
listed=$(grep -v '^$' "$list" | sort)
diff <(echo "$listed") <(nm -D --defined-only "$lib" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | sort)
diff <(echo "$listed") <(sed -n -e 's/^TAVRO_QUENDA_API [^(]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)(.*/\1/p' \
    -e 's/^TAVRO_QUENDA_API extern [^;]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)\[.*/\1/p' "$header" | sort)
relocated=$(readelf -rW "$lib" | awk 'NF >= 5 && $1 ~ /^[0-9a-f]+$/ { sub(/@.*/, "", $5); print $5 }' | sort -u)
comm -12 <(echo "$listed") <(echo "$relocated") | { ! grep . ; }
[ "$(objdump -p "$lib" | awk '$1 == "SONAME" { print $2 }')" = libtavro-quenda.so.1 ]
