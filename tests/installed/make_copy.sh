#!/bin/sh
# Installs the build tree for the tests that use it as a stranger would: make_copy.sh BUILD COPY
set -eu
build=$1
copy=$2

# Installed in one place and moved to another: nothing in it may name the first.
rm -rf "$copy" "$copy.first"
cmake --install "$build" --prefix "$copy.first" >"$copy.log"
mv "$copy.first" "$copy"
if grep -rIl "$copy.first" "$copy"; then
    echo "the files above name the folder they were installed to"
    exit 1
fi
