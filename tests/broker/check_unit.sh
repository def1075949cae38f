#!/bin/sh
# Has systemd read the unit as it is installed: check_unit.sh BUILD PROGRAM
set -eu
command -v systemd-analyze >/dev/null || {
    echo "no systemd-analyze here"
    exit 77
}
cmake --install "$1" --prefix "$PWD/installed" >install.log

# systemd would look for the program below /usr; nothing else is changed.
unit=installed/lib/systemd/system/tarn-broker.service
grep -q '^ExecStart=tarn-broker ' $unit
sed -i "s|^ExecStart=tarn-broker |ExecStart=$2 |" $unit

# Keys it does not know are only told, so what is wanted is silence.
systemd-analyze verify --man=no "$PWD/$unit" >told 2>&1 || echo "status $?" >>told
[ ! -s told ] || {
    cat told
    exit 1
}
