#!/bin/sh
# Installs the build tree and uses it as a stranger would: use_installed.sh SOURCE BUILD LIBDIR CC GENERATOR
set -eu
source=$1
build=$2
libdir=$3
cc=$4
generator=$5 # the one that is there: a machine may have ninja and no make

# Installed in one place and moved to another: nothing in it may name the first.
cmake --install "$build" --prefix "$PWD/first" >install.log
mv first here
if grep -rIl "$PWD/first" here; then
    echo "the files above name the folder they were installed to"
    exit 1
fi

echo "-- the program finds its library"
here/bin/tarn-broker --version | grep -Fx 'tarn-broker V2.0.0'

echo "-- a host by pkg-config"
PKG_CONFIG_PATH=here/$libdir/pkgconfig
export PKG_CONFIG_PATH
# shellcheck disable=SC2046 # a list of options
"$cc" -Wall -Wextra -Werror "$source/examples/smallest_host.c" -o host $(pkg-config --cflags --libs tarn_sdk_mqtt_broker)
echo | LD_LIBRARY_PATH=here/$libdir ./host | grep -F 'Serving'

echo "-- a host by find_package"
mkdir project
cp "$source/examples/smallest_host.c" project/
cat >project/modules.c <<'C'
#include <tarn_sdk_mqtt_broker/codec/mqtt_codec.h>
#include <tarn_sdk_mqtt_broker/client/client.h>
#include <tarn_sdk_mqtt_broker/api/broker.h>
#include <tarn_sdk_mqtt_broker/handler/shared_sub.h>
#include <tarn_sdk_mqtt_broker/net/netip.h>
#include <tarn_sdk_mqtt_broker/qos/qos_reliable.h>
#include <tarn_sdk_mqtt_broker/stats/mqtt_stats.h>
#include <tarn_sdk_mqtt_broker/sub/retain.h>
int modules(void);
int modules(void) { return (int)g_mqtt_stats.online + NETIP_PORT; }
C
cat >project/CMakeLists.txt <<'C'
cmake_minimum_required(VERSION 3.16)
project(host C)
find_package(tarn_sdk_mqtt_broker 2.0 REQUIRED)
add_executable(host smallest_host.c modules.c)
target_link_libraries(host PRIVATE tarn_sdk_mqtt_broker::tarn_sdk_mqtt_broker)
C
cmake -G "$generator" -S project -B project/build -DCMAKE_PREFIX_PATH="$PWD/here" -DCMAKE_C_COMPILER="$cc" >project.log || {
    cat project.log
    exit 1
}
cmake --build project/build >project.log || {
    cat project.log
    exit 1
}
echo | project/build/host | grep -F 'Serving'
