// routing.h - the way of a message to its receivers, shared by every route: match the topic, choose one member per
// shared group, then deliver to each receiver at its QoS, in its protocol version, under an identifier of its own.
//
// What differs between the routes is a Path: what is passed over, what is said, what becomes of absent receivers and
// which deliveries are tracked. No lock is held while a message travels; each receiver is pinned for its turn.
#ifndef TARN_HANDLER_ROUTING_H
#define TARN_HANDLER_ROUTING_H

#include "../persist/session_store.h"
#include "../qos/booking.h"
#include "../sub/route.h"
#include "delivery_cache.h"
#include "handler_internal.h"

#include <algorithm>

namespace tarn::handler {

// The matching subscriptions of one topic in table order. One at a time on each thread.
class Matches {
public:
    Matches() noexcept;

    [[nodiscard]] bool find(const char *topic) noexcept; // false: no memory, errno says so
    [[nodiscard]] bool choose() noexcept;                // shared groups; false: no memory for the flags

    int               count() const noexcept { return count_; }
    const sub::Route &operator[](int at) const noexcept { return list_.routes[static_cast<size_t>(at)]; }

    // A member of a shared group, of which another member was chosen.
    bool skips(int at) const noexcept
    {
        const sub::Route &route = (*this)[at];
        return route.shared && route.group_size != sub::kNoGroup && !chosen_[static_cast<size_t>(at)];
    }

private:
    sub::RouteList &list_;
    owned<uint8_t>  chosen_; // a flag a match
    int             count_ = 0;
};

struct Receiver {
    int               number; // from 1, as log lines count
    const sub::Route &route;
};

// What every Path has, and the parts it may leave out.
struct BasicPath {
    static constexpr bool kDrawsAtQos0   = false; // an identifier is drawn where none is sent
    static constexpr bool kRemembersQos1 = true;  // as the one acknowledgement the receiver's record waits for

    Message       &message; // its QoS and identifier change with every delivery
    const uint32_t qos;     // of the message itself

    explicit BasicPath(Message &what) noexcept : message(what), qos(what.qos) {}

    bool     tracks() const { return true; } // queued QoS 1 and 2 deliveries join the reliable-delivery queue
    uint32_t qos_to(const Receiver &to) const { return std::min<uint32_t>(qos, to.route.qos); }

    bool passes_over(const Receiver &) { return false; } // without a word
    void not_chosen(const Receiver &) {}
    // Every Path says what becomes of a receiver that nobody is (client null) or that is not online:
    //   void absent(const Receiver &to, const mqtt_client_t *client, uint32_t state);
    bool prepare(const Receiver &, uint32_t /*version*/) { return true; } // false: nothing goes to it
    void no_memory(const Receiver &) {}
    void encoded(mqtt_client_t &, const DeliveryCache &, int /*code*/, uint32_t /*version*/) {} // or refused
    void not_encoded(const Receiver &, int /*code*/) {}
    void not_sent(const Receiver &, uint32_t /*result*/) {}
    void sent(const Receiver &) {}
};

inline qos::Delivery delivery_of(mqtt_client_t &client, const Message &message, bool tracked, bool remembered) noexcept
{
    return {client,  message.msg_id, static_cast<uint8_t>(message.qos), message.topic_text(), message.payload,
            tracked, remembered};
}

// Most messages have nothing to be booked and need not queue up at the pending deliveries.
inline qos::Booked send_delivery(const qos::Delivery &delivery, Packet packet) noexcept
{
    if (delivery.tracked || delivery.remembered)
        return qos::send_booked(delivery, packet);
    return {client_send(&delivery.client, packet.data(), static_cast<int32_t>(packet.size()))};
}

// The smaller of the message's and the granted QoS, a fresh identifier, one copy for every matching subscription.
// QUIRK(receive-maximum-ignored): deliveries do not wait for acknowledgements of earlier ones, whatever Receive
// Maximum a 5.0 client announced [MQTT-3.3.4-9]. What limits them is the client's ring and 1000 pending deliveries.
//   test: publish.a_receive_maximum_holds_nothing_back
template <class Path> bool deliver(DeliveryCache &cache, Path &path, const Receiver &to, mqtt_client_t &client)
{
    const uint32_t version = peek(client.codec.version); // once: another thread may change it
    const uint32_t qos     = path.qos_to(to);
    if (!path.prepare(to, version))
        return false;

    const uint16_t               id     = qos != 0 || Path::kDrawsAtQos0 ? draw_delivery_id() : uint16_t{0};
    const DeliveryCache::Encoded packet = cache.encode(version, qos, id);
    if (packet.code == DeliveryCache::kNoMemory) {
        path.no_memory(to);
        return false;
    }
    path.encoded(client, cache, packet.code, version);
    if (packet.code != CODEC_OK) {
        path.not_encoded(to, packet.code);
        return false;
    }
    poke(client.codec.last_packet_type, uint32_t{PUBLISH});
    const qos::Delivery delivery =
        delivery_of(client, path.message, path.tracks() && qos != 0, Path::kRemembersQos1 && qos == 1);
    const qos::Booked booked = send_delivery(delivery, {packet.bytes, static_cast<size_t>(packet.length)});
    if (booked.result != 0) {
        path.not_sent(to, booked.result);
        return false;
    }

    path.sent(to);
    if (delivery.tracked)
        qos::say_booked(delivery, booked);
    return true;
}

// Returns the number of receivers that the message was queued for.
template <class Path> int fan_out(const Matches &matches, Path &path)
{
    DeliveryCache cache(path.message);
    int           sent = 0;
    for (int at = 0; at < matches.count(); at++) {
        const Receiver to{at + 1, matches[at]};
        if (path.passes_over(to))
            continue;
        if (matches.skips(at)) {
            path.not_chosen(to);
            continue;
        }
        const client_ref client = find_client_by_cid(to.route.client_id);
        const uint32_t   state  = client ? peek(client->state) : uint32_t{CLIENT_UNUSED};
        if (state == CLIENT_CONNECTED || state == CLIENT_LOGINED)
            sent += deliver(cache, path, to, *client);
        else
            path.absent(to, client.get(), state);
    }
    return sent;
}

// True when a message for this absent receiver is to be kept: its subscription asked to be remembered, or one of its
// files is there.
[[nodiscard]] bool keeps_messages(const persist::HeldSession &session, const sub::Route &route) noexcept;

// Asking and storing count and say a load each, though the files are read once. False without memory.
[[nodiscard]] bool keep_message(persist::HeldSession &session, const Message &message, uint32_t qos) noexcept;

} // namespace tarn::handler

#endif
