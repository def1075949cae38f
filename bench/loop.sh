#!/bin/sh
# loop.sh TARN_BROKER BENCH [OPTION]... - runs a program that measures against tarn-broker and, where it is installed,
# against mosquitto as a yardstick, in a directory and, where the kernel allows it, a network of their own. With
# TARN_BENCH_ALONE=yes without the yardstick.
set -eu
# shellcheck source=bench/own_network.sh
. "$(dirname "$0")/own_network.sh"
broker=$1
bench=$2
shift 2

directory=$(mktemp -d)
started=
trap 'kill $started 2>/dev/null || true; wait; rm -rf "$directory"' EXIT
cd "$directory"

"$broker" >broker.log 2>broker.err &
started=$!
set -- "$@" tarn-broker=1883
if [ -z "${TARN_BENCH_ALONE-}" ] && command -v mosquitto >/dev/null 2>&1; then
    printf 'listener 1884 127.0.0.1\nallow_anonymous true\nmax_inflight_messages 0\nmax_queued_messages 0\n' >stock.conf
    mosquitto -c stock.conf >/dev/null 2>&1 &
    started="$started $!"
    set -- "$@" mosquitto=1884
fi
for _ in 1 2 3 4 5 6 7 8 9 10; do
    grep -q '^tarn-broker: serving MQTT' broker.err && break
    sleep 0.2
done
"$bench" "$@"
