# own_network.sh - sourced by the scripts here before anything else: it begins the script anew in a network of its own,
# where the kernel allows it, with the loopback interface up.
# shellcheck shell=sh
PATH=$PATH:/usr/sbin:/usr/local/sbin # where ip and mosquitto may be
if [ -z "${TARN_OWN_NETWORK-}" ]; then
    for namespace in -n -rn; do
        if unshare $namespace true 2>/dev/null; then
            TARN_OWN_NETWORK=yes exec unshare $namespace "$0" "$@"
        fi
    done
elif command -v ip >/dev/null 2>&1; then
    ip link set lo up
fi
