// qos_fixture.h - clients outside the pool and a clock in the test's hand.
#ifndef TARN_TESTS_QOS_FIXTURE_H
#define TARN_TESTS_QOS_FIXTURE_H

#include "client/client.hpp"
#include "net/netip.h"
#include "qos/qos_reliable.h"
#include "support/faults.h"
#include "support/log_capture.h"
#include "support/send_ring.h"
#include "support/wire.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

namespace tarn::test {

// A logged-in client without a socket: what is sent to it stays in its ring.
class RingClient {
public:
    explicit RingClient(const char *id = "dev1", uint32_t version = 4)
    {
        record_->handle          = NETIP_NO_HANDLE;
        record_->state           = CLIENT_LOGINED;
        record_->used            = 1;
        record_->codec.version   = version;
        record_->max_packet_size = 4096;
        strcpy(record_->client_id, id);
    }
    ~RingClient() { free(record_->send_queue); }
    mqtt_client_t *operator->() { return record_.get(); }
                   operator mqtt_client_t *() { return record_.get(); }

    // Packets queued so far, taken out.
    std::vector<Bytes> take() { return take_queued(*record_); }

private:
    std::unique_ptr<mqtt_client_t> record_{new mqtt_client_t{}};
};

inline int pending_count()
{
    int count = 0;
    for (const qos_packet_t *entry = g_pending_queue; entry; entry = entry->next)
        ++count;
    return count;
}

// The lines of this module alone: the encoder of the replies traces at INFO.
inline std::vector<LogLine> own(LogCapture &log)
{
    std::vector<LogLine> lines = log.take();
    std::erase_if(lines, [](const LogLine &line) { return !line.text.starts_with("[QoS"); });
    return lines;
}

inline int add(mqtt_client_t *client, uint16_t id, uint8_t qos = 1, const char *topic = "t", const char *payload = "x")
{
    return qos_reliable_add_packet(client, id, qos, topic, payload, static_cast<uint32_t>(strlen(payload)));
}

} // namespace tarn::test

#endif
