#!/bin/sh
# usage: abi_test.sh LIBRARY SYMBOLS
# Fails when the library's exported symbols, with their version nodes (GetRawFrame@@TALVORO_1.0),
# differ from the checked-in list SYMBOLS. A symbol may be added in a new version node, and then
# added to the list; none may be removed or change its node.
set -eu
lib=$1
list=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Defined global symbols: Ndx is not UND.
readelf --dyn-syms --wide "$lib" |
    awk '$5 == "GLOBAL" || $5 == "WEAK" { if ($7 != "UND") print $8 }' | sort -u > "$tmp/exported"
grep -v '^#' "$list" | sed '/^$/d' | sort -u > "$tmp/expected"

if ! diff -u "$tmp/expected" "$tmp/exported"; then
    echo "FAIL: the exported symbols (+) differ from $list (-)"
    exit 1
fi
# The version nodes themselves are listed by their names alone.
unversioned=$(grep -v -e '@@' -e '^TALVORO_[0-9.]*$' "$tmp/exported" || true)
[ -z "$unversioned" ] || { echo "FAIL: exported without a version node: $unversioned"; exit 1; }
echo "OK: $(wc -l < "$tmp/exported") exported symbols, each with its version node"
