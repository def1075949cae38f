// net.h - lines of src/net that tests expect in more than one place.
#ifndef TARN_TESTS_LOG_LINES_NET_H
#define TARN_TESTS_LOG_LINES_NET_H

#include "support/log_capture.h"

namespace tarn::test::logged {

inline LogLine stream_parse_started(int handle, int length)
{
    return debug(printed("[NETIP] 开始解析客户端数据 handle=%d 缓存长度=%d", handle, length));
}
inline LogLine stream_packet_length(int length)
{
    return info(printed("[NETIP] 完整报文长度: %d", length));
}
inline LogLine stream_packet()
{
    return debug("[NETIP] 完整报文");
}
inline LogLine epoll_wait_failed(int code)
{
    return error(printed("[IO] epoll_wait 错误, errno=%d", code));
}

} // namespace tarn::test::logged

#endif
