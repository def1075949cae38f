// address.h - a path as the address of a Unix socket.
#ifndef TARN_BROKER_CONSOLE_ADDRESS_H
#define TARN_BROKER_CONSOLE_ADDRESS_H

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

namespace tarn::broker {

// False when the path does not fit.
inline bool unix_address(const std::string &path, sockaddr_un &address)
{
    address            = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

} // namespace tarn::broker

#endif
