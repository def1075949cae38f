#include "client.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace tarn::conformance {

using test::hex;

namespace {

std::string shortened(const Bytes &bytes)
{
    constexpr size_t kShown = 100;
    return bytes.size() <= kShown ? hex(bytes) : hex(bytes.data(), kShown) + " ...";
}

std::string code(unsigned value)
{
    const auto byte = static_cast<uint8_t>(value);
    return "0x" + hex(&byte, 1);
}

} // namespace

std::string named(const Received &received)
{
    static const char *const kNames[] = {"no packet", "CONNECT",  "CONNACK",    "PUBLISH", "PUBACK",      "PUBREC",
                                         "PUBREL",    "PUBCOMP",  "SUBSCRIBE",  "SUBACK",  "UNSUBSCRIBE", "UNSUBACK",
                                         "PINGREQ",   "PINGRESP", "DISCONNECT", "AUTH"};
    if (received.whole.empty())
        return "nothing";
    return std::string(kNames[received.type & 15]) + (received.fault.empty() ? "" : " (" + received.fault + ")") + " " +
           shortened(received.whole);
}

Client Client::open(unsigned level, Where where)
{
    return {level, test::Peer::tcp(1883, where)};
}

Client::Client(unsigned level, std::string_view id, const Connect &options, Where where)
    : Client(level, test::Peer::tcp(1883, where))
{
    connect(id, options, where);
}

void Client::fail(Where where, const std::string &what)
{
    if (ok())
        ADD_FAILURE_AT(where.file, where.line) << what;
    failed_ = true;
}

Received Client::read(Where where)
{
    if (!ok())
        return {};
    Received received = parse(level_, peer_.read_packet());
    if (!received.type)
        fail(where, "expected a packet, got " + named(received));
    return received;
}

void Client::connect(std::string_view id, const Connect &options, Where where)
{
    send(connect_packet(level_, id, options));
    connack_ = expect(CONNACK, where);
    if (connack_.reason)
        fail(where, "CONNACK with " + code(connack_.reason));
}

Received Client::refused(unsigned reason, Where where)
{
    const Received answer = expect(CONNACK, where);
    if (answer.reason != reason)
        fail(where, "expected CONNACK with " + code(reason) + ", got " + named(answer));
    expect_closed(where);
    return answer;
}

unsigned Client::publish(std::string_view topic, std::string_view payload, Publish options, Where where)
{
    if (options.qos && !options.id)
        options.id = next_id();
    send(publish_packet(level_, topic, payload, options));
    if (!options.qos)
        return 0;
    const Received answer = expect(options.qos == 1 ? PUBACK : PUBREC, where);
    if (answer.id != options.id)
        fail(where, "another identifier: " + named(answer));
    if (options.qos == 2 && answer.reason < 0x80) {
        send(ack_packet(PUBREL, options.id));
        expect_ack(PUBCOMP, options.id, 0, where);
    }
    return answer.reason;
}

void Client::publish_numbers(std::string_view topic, int from, int to, Where where)
{
    constexpr int kAtOnce = 100; // below the Receive Maximum of any broker that is tested
    for (; from < to; from += kAtOnce) {
        Bytes                 all;
        std::vector<unsigned> ids;
        for (int i = from; i < std::min(from + kAtOnce, to); ++i) {
            ids.push_back(next_id());
            all = all + publish_packet(level_, topic, std::to_string(i), {.qos = 1, .id = ids.back()});
        }
        send(all);
        for (const unsigned id : ids)
            expect_ack(PUBACK, id, where);
    }
}

Bytes Client::subscribe(const std::vector<Filter> &filters, const Bytes &properties, Where where)
{
    const unsigned id = next_id();
    send(subscribe_packet(level_, id, filters, properties));
    const Received answer = expect(SUBACK, where);
    if (answer.id != id || answer.reasons.size() != filters.size())
        fail(where, "expected a SUBACK with " + std::to_string(filters.size()) + " codes, got " + named(answer));
    return answer.reasons;
}

unsigned Client::subscribe(std::string_view filter, unsigned options, const Bytes &properties, Where where)
{
    const Bytes reasons = subscribe({{std::string(filter), options}}, properties, where);
    if (reasons.size() == 1 && reasons[0] != (options & 3U))
        fail(where, "granted " + code(reasons[0]));
    return reasons.empty() ? 0xFF : reasons[0];
}

Received Client::unsubscribe(const std::vector<std::string> &filters, Where where)
{
    const unsigned id = next_id();
    send(unsubscribe_packet(level_, id, filters));
    Received answer = expect(UNSUBACK, where);
    if (answer.id != id || answer.reasons.size() != (level_ == 5 ? filters.size() : 0))
        fail(where, "no such UNSUBACK: " + named(answer));
    return answer;
}

void Client::ping(Where where)
{
    send("C0 00");
    expect(PINGRESP, where);
}

void Client::disconnect(unsigned reason, const Bytes &properties, Where where)
{
    if (level_ == 4 || (!reason && properties.empty()))
        send("E0 00");
    else
        send(packet(0xE0, Bytes{static_cast<uint8_t>(reason)} + block(5, properties)));
    expect_closed(where);
}

Received Client::next(Where where)
{
    if (early_.empty())
        return read(where);
    Received first = early_.front();
    early_.pop_front();
    return first;
}

Received Client::expect(Type type, Where where)
{
    if (type == PUBLISH && !early_.empty())
        return next(where);
    Received received = read(where);
    while (received.type == PUBLISH && type != PUBLISH) {
        early_.push_back(received);
        received = read(where);
    }
    if (received.type != type)
        fail(where, "expected " + named({.type = type, .whole = {static_cast<uint8_t>(type << 4)}}) + ", got " +
                        named(received));
    return received;
}

Received Client::expect_ack(Type type, unsigned id, Where where)
{
    const Received answer = expect(type, where);
    if (answer.id != id || answer.reason >= 0x80)
        fail(where, "no such acknowledgement of " + std::to_string(id) + ": " + named(answer));
    return answer;
}

Received Client::expect_ack(Type type, unsigned id, unsigned reason, Where where)
{
    const Received answer = expect(type, where);
    if (answer.id != id || answer.reason != reason)
        fail(where, "expected " + std::to_string(id) + " with " + code(reason) + ", got " + named(answer));
    return answer;
}

Received Client::expect_publish(std::string_view topic, std::string_view payload, Expected flags, Where where)
{
    const Received got = expect(PUBLISH, where);
    if (got.topic != topic || got.payload != payload || got.qos != flags.qos || got.retain != flags.retain ||
        got.dup != flags.dup) {
        const Publish like{.qos = flags.qos, .retain = flags.retain, .dup = flags.dup, .id = got.id};
        fail(where, "expected " + shortened(publish_packet(4, topic, payload.substr(0, 100), like)) + "\n  got      " +
                        named(got));
    }
    return got;
}

Received Client::take(std::string_view topic, std::string_view payload, Expected flags, Where where)
{
    const Received got = expect_publish(topic, payload, flags, where);
    acknowledge(got, where);
    return got;
}

void Client::acknowledge(const Received &publish, Where where)
{
    if (publish.qos == 1)
        send(ack_packet(PUBACK, publish.id));
    if (publish.qos != 2)
        return;
    send(ack_packet(PUBREC, publish.id));
    expect_ack(PUBREL, publish.id, 0, where);
    send(ack_packet(PUBCOMP, publish.id));
}

void Client::expect_silence(Where where)
{
    if (!early_.empty())
        fail(where, "expected silence, got " + named(early_.front()));
    send("C0 00");
    const Received answer = read(where);
    if (answer.type != PINGRESP)
        fail(where, "expected silence, got " + named(answer));
}

Received Client::expect_end(std::initializer_list<unsigned> reasons, Where where)
{
    Received answer;
    if (level_ == 5) {
        answer = expect(DISCONNECT, where);
        if (std::ranges::find(reasons, answer.reason) == reasons.end())
            fail(where, "expected another reason than " + code(answer.reason));
    }
    expect_closed(where);
    return answer;
}

void Client::expect_closed(Where where)
{
    if (ok())
        peer_.expect_closed(where);
}

std::vector<Received> Client::take_all(Where where)
{
    std::vector<Received> all(early_.begin(), early_.end());
    early_.clear();
    send("C0 00");
    for (;;) {
        const Received received = read(where);
        if (received.type != PUBLISH) {
            if (received.type != PINGRESP)
                fail(where, "expected publications, got " + named(received));
            break;
        }
        all.push_back(received);
    }
    for (const Received &publish : all)
        acknowledge(publish, where);
    return all;
}

} // namespace tarn::conformance
