#!/bin/sh
# usage: api_docs_test.sh DOXYGEN DOXYFILE HEADER
# Builds the API reference as the docs target does, into a temporary directory: it must build
# without a warning and describe the exports. Then the same with a header that has one export
# without its comment: that must fail, or undocumented exports would slip through.
set -eu
doxygen=$1
doxyfile=$2
header=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

(cat "$doxyfile"; echo "OUTPUT_DIRECTORY = $tmp/good") | "$doxygen" - > "$tmp/good.log" 2>&1 ||
    { cat "$tmp/good.log"; echo "FAIL: the API reference does not build cleanly"; exit 1; }
grep -q 'OpenDevice' "$tmp/good/html/namespaceTalvoro.html" ||
    { echo "FAIL: the API reference does not describe OpenDevice"; exit 1; }

# The same header without the comment of PrintLog.
/usr/bin/python3 - "$header" "$tmp/undocumented.h" << 'PYTHON'
import sys
text = open(sys.argv[1]).read()
declaration = text.index("TALVORO_API Result PrintLog(")
comment = text.rindex("/**", 0, declaration)
open(sys.argv[2], "w").write(text[:comment] + text[declaration:])
PYTHON
if (cat "$doxyfile"; echo "INPUT = $tmp/undocumented.h"; echo "OUTPUT_DIRECTORY = $tmp/bad") |
    "$doxygen" - > "$tmp/bad.log" 2>&1; then
    echo "FAIL: an undocumented export does not fail the API reference"
    exit 1
fi
grep -q 'PrintLog.*is not documented' "$tmp/bad.log" ||
    { cat "$tmp/bad.log"; echo "FAIL: the failure does not name PrintLog"; exit 1; }
echo "OK: the API reference builds without warnings; an undocumented export fails it"
