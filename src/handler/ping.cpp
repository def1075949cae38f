// ping.cpp - PINGREQ and its two-byte answer.
#include "../base/memory.h"
#include "handler_internal.h"

#include <cerrno>
#include <cstring>

namespace tarn::handler {

int handle_ping(mqtt_client_t &client, Packet) noexcept
{
    constexpr uint8_t kPingresp[] = {0xD0, 0x00};

    LOG_DEBUG("收到客户端心跳请求：ClientID=%s", client.client_id);
    const owned<uint8_t> reply = allocate<uint8_t>(sizeof kPingresp);
    if (!reply) {
        LOG_ERROR("pingresp_buf malloc failed: %d", errno);
        return -1;
    }
    memcpy(reply.get(), kPingresp, sizeof kPingresp);
    if (answer_client(client, {reply.get(), sizeof kPingresp}) == 0) {
        LOG_DEBUG("发送心跳响应成功：ClientID=%s", client.client_id);
        client::note_active(client);
    }
    return 0;
}

} // namespace tarn::handler
