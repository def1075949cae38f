#!/bin/sh
# Uses of an installed copy that no example shows: use_modules.sh COPY LIBDIR CC
set -eu
copy=$1
libdir=$2
cc=$3

echo "-- the program finds its library"
"$copy/bin/tarn-broker" --version | grep -Fx 'tarn-broker V2.0.0'

echo "-- the headers of the modules"
cat >modules.c <<'C'
#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>
#include <tarn_sdk_mqtt_broker/client/client.h>
#include <tarn_sdk_mqtt_broker/api/broker.h>
#include <tarn_sdk_mqtt_broker/handler/shared_sub.h>
#include <tarn_sdk_mqtt_broker/net/netip.h>
#include <tarn_sdk_mqtt_broker/qos/qos_reliable.h>
#include <tarn_sdk_mqtt_broker/stats/mqtt_stats.h>
#include <tarn_sdk_mqtt_broker/sub/retain.h>
int main(void) { return (int)g_mqtt_stats.online + NETIP_PORT - 1883; }
C
PKG_CONFIG_PATH=$copy/$libdir/pkgconfig
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # a list of options
"$cc" -Wall -Wextra -Werror modules.c -o modules $(pkg-config --cflags --libs tarn_sdk_mqtt_broker)
LD_LIBRARY_PATH=$copy/$libdir ./modules
