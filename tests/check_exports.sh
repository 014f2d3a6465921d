#!/usr/bin/env bash
# Checks the exported surface of the shared library: every function and
# global declared with QVFS_API in the layer headers is exported, and no C++
# (mangled) symbol leaks out.
set -euo pipefail
lib=$1
src=$2
syms=$(nm -D --defined-only "$lib" | awk '{print $3}')
if grep -q '^_Z' <<<"$syms"; then
    echo "C++ symbols exported:"; grep '^_Z' <<<"$syms"; exit 1
fi
declared=$(cat "$src"/common/*.h "$src"/disk/*.h "$src"/blockfile/*.h "$src"/file/*.h "$src"/api/*.h |
    grep -v '#define' | tr '\n' ' ' | grep -oE 'QVFS_API[^;({]*[ *&][A-Za-z_][A-Za-z0-9_]*[[:space:]]*[(;[]' |
    sed -E 's/.*[ *&]([A-Za-z_][A-Za-z0-9_]*)[[:space:]]*[(;[]$/\1/' | sort -u)
count=$(wc -l <<<"$declared")
[ "$count" -gt 100 ] || { echo "only $count declarations found: the scan is broken"; exit 1; }
missing=$(comm -23 <(echo "$declared") <(sort -u <<<"$syms"))
[ -z "$missing" ] || { sed 's/^/declared but not exported: /' <<<"$missing"; exit 1; }
echo "$count declared names, all exported"
