#!/bin/sh
# Builds a copy of examples/ against the installed library: build_examples.sh EXAMPLES COPY BUILD [CMAKE OPTION]...
set -eu
examples=$1
copy=$2
build=$3
shift 3

rm -rf "$build"
mkdir -p "$build"
cp "$examples"/* "$build"
quietly()
{
    "$@" >"$build/log" 2>&1 || {
        cat "$build/log"
        exit 1
    }
}
quietly cmake -S "$build" -B "$build" -DCMAKE_PREFIX_PATH="$copy" "$@"
quietly cmake --build "$build"
