// send_batch.cpp - a thread that queues many packets for many clients in turn sends them many at a time.
//
// Each packet on its own would cost a wake-up of the send thread and a write. A batch knows whose rings were filled and
// sends on the filling thread, which need not wait for another one to make room. A client may be released meanwhile: as
// with the send list, what is sent then is of whichever client has the record.
#include "client_internal.h"

namespace tarn {
namespace {

constexpr int kWorthAWrite = 32;              // packets
constexpr int kMostAtOnce  = net::kGatherMax; // what one write takes, which leaves a third of the ring to others

int packets_in(mqtt_client_t &client)
{
    const int count = peek(client.send_tail) - peek(client.send_head);
    return count < 0 ? count + CLIENT_SEND_SLOTS : count;
}

// The socket takes nothing, and who sees it writable sends.
bool is_stalled(int32_t index)
{
    return client::side_at(index).awaits_retry.load() != 0;
}

void send_now(int32_t index)
{
    if (is_stalled(index))
        return;
    const client_ref client(client::record_at(index));
    client::hand_over_rest(*client, client::flush_ring(*client, true));
}

} // namespace

void SendBatch::add(mqtt_client_t &client) noexcept
{
    const int32_t index = client::index_of(&client);
    if (index == client::kOutside || has_[index])
        return;
    has_[index]       = true;
    places_[count_++] = index;
}

bool SendBatch::is_due(mqtt_client_t &client) const noexcept
{
    const int32_t index = client::index_of(&client);
    return index != client::kOutside && has_[index] && packets_in(client) >= kMostAtOnce && !is_stalled(index);
}

void SendBatch::send(Part part) noexcept
{
    int32_t kept = 0;
    for (int32_t i = 0; i < count_; ++i) {
        const int32_t index = places_[i];
        if (part == Part::Worthwhile && packets_in(*client::record_at(index)) < kWorthAWrite) {
            places_[kept++] = index;
            continue;
        }
        has_[index] = false;
        send_now(index);
    }
    count_ = kept;
}

} // namespace tarn
