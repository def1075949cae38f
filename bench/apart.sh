#!/bin/sh
# apart.sh TARN_BROKER PROGRAM [OPTION]... - runs a program that starts the brokers itself, such as bench/beside, with
# these options so that nothing is left behind, however it ends: in a network of its own where the kernel allows it, and
# with its files in a directory that goes with it. It gets --alone where there is no mosquitto.
set -eu
# shellcheck source=bench/own_network.sh
. "$(dirname "$0")/own_network.sh"
broker=$1
program=$2
shift 2
command -v mosquitto >/dev/null 2>&1 || set -- --alone "$@"

TMPDIR=$(mktemp -d)
export TMPDIR
started=
trap 'kill $started 2>/dev/null || true; wait; rm -rf "$TMPDIR" || { sleep 1; rm -rf "$TMPDIR"; }' EXIT
trap 'exit 130' INT TERM HUP
"$program" "$@" "$broker" &
started=$!
wait $started
