#!/bin/sh
# usage: exports_test.sh LIBRARY HEADER
# Fails when the library's dynamic symbols differ from the header's exported functions, or when
# its SONAME is not libTalvoroSDK.so.1.
set -eu
lib=$1
header=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Names without their version (GetRawFrame@@TALVORO_1.0); the version nodes themselves (A) aside.
nm -D --defined-only "$lib" | awk '$2 != "A" {print $NF}' | sed 's/@.*//' | sort -u > "$tmp/exported"
sed -n 's/^TALVORO_API [^(]*[ *]\([A-Za-z_][A-Za-z0-9_]*\)(.*/\1/p' "$header" | sort -u > "$tmp/declared"

if ! diff -u "$tmp/declared" "$tmp/exported"; then
    echo "FAIL: exported symbols (+) differ from the header's functions (-)"
    exit 1
fi
[ -s "$tmp/declared" ] || { echo "FAIL: no exported function found in $header"; exit 1; }
soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libTalvoroSDK.so.1" ] || { echo "FAIL: SONAME is '$soname'"; exit 1; }
echo "OK: $(wc -l < "$tmp/exported") exported functions, SONAME $soname"
