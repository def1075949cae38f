#include "honest.h"

#include <algorithm>
#include <cstring>

using namespace tarn::test;

namespace tarn::beside {
namespace {

constexpr char   kAddress[]       = "127.0.0.1";
constexpr double kMessagePeriod_s = 0.01;
constexpr double kVisitPeriod_s   = 0.2;
constexpr double kAnswerLimit_s   = 1; // a new client is answered by then
constexpr size_t kPayloadSize     = 64;

// The head of every payload: a mark that no decoder takes for a property length, then the number and the time.
struct Stamp {
    uint32_t mark = 0xFFFFFFFF;
    uint32_t number;
    double   sent_at_s;
};

double ms_since(double start_s)
{
    return (now_s() - start_s) * 1000;
}

} // namespace

Spread spread_of(std::vector<double> ms)
{
    if (ms.empty())
        return {};
    std::sort(ms.begin(), ms.end());
    return {ms[ms.size() / 2], ms[ms.size() * 99 / 100], ms.back()};
}

// ------------------------------------------------------------------------------------------------------------- pair

Pair::Pair(Crowd &crowd, unsigned qos, const Connect &options)
    : crowd_(crowd), qos_(qos), options_(options), publisher_(crowd.add(kAddress)), subscriber_(crowd.add(kAddress)),
      topic_("pair/" + std::to_string(qos))
{
    subscriber_.on_packet = [this](Packet packet) { take(packet); };
}

// A broker that has just been started may refuse the first connections.
bool Pair::join(Actor &actor, const char *role, double limit_s)
{
    const Bytes  connect = connect_packet(4, role + std::to_string(qos_), options_);
    const double end_s   = now_s() + limit_s;
    for (;;) {
        actor.open();
        if (crowd_.ask(actor, connect, kConnack, 1) && crowd_.ask(actor, wire("C0 00"), kPingresp, 1))
            return true; // a refusal, too, begins with a CONNACK
        if (now_s() > end_s)
            return false;
        crowd_.step(0.05);
    }
}

bool Pair::join(double limit_s)
{
    return join(publisher_, "pair-publisher-", limit_s) && join(subscriber_, "pair-subscriber-", limit_s) &&
           crowd_.ask(subscriber_, subscribe_packet(4, 1, topic_, qos_), kSuback);
}

void Pair::publish()
{
    const Stamp stamp{.number = static_cast<uint32_t>(sent_at_s_.size()), .sent_at_s = now_s()};
    Bytes       payload(kPayloadSize, 'x');
    memcpy(payload.data(), &stamp, sizeof stamp);
    sent_at_s_.push_back(stamp.sent_at_s);
    latency_ms_.push_back(-1);
    publisher_.send(publish_packet(4, topic_, payload, {.qos = qos_, .id = stamp.number % 65535 + 1}));
}

void Pair::take(Packet packet)
{
    if (packet.type() != kPublish || packet.size < kPayloadSize)
        return;
    if (packet.qos() == 1)
        subscriber_.send(ack_packet(4, 0x40, publish_id(packet)));
    Stamp stamp;
    memcpy(&stamp, packet.data + packet.size - kPayloadSize, sizeof stamp);
    if (stamp.number >= latency_ms_.size() || latency_ms_[stamp.number] >= 0)
        return; // came twice, as it may at QoS 1
    latency_ms_[stamp.number] = ms_since(stamp.sent_at_s);
    ++arrived_;
}

PairResult Pair::result() const
{
    PairResult          result;
    std::vector<double> ms;
    for (size_t i = first_; i < sent_at_s_.size(); ++i) {
        ms.push_back(latency_ms_[i] >= 0 ? latency_ms_[i] : ms_since(sent_at_s_[i]));
        result.lost += latency_ms_[i] < 0;
    }
    result.sent   = static_cast<unsigned>(ms.size());
    result.spread = spread_of(std::move(ms));
    return result;
}

// ------------------------------------------------------------------------------------------------------------- door

void Door::knock()
{
    const size_t visit   = visits_.size();
    Actor       &actor   = crowd_.add(kAddress);
    const Bytes  connect = connect_packet(4, "door-" + std::to_string(visit), options_);
    actor.on_packet      = [this, visit](Packet packet) { take(visit, packet); };
    visits_.push_back({&actor, now_s()});
    actor.open();
    actor.send(connect);
}

void Door::take(size_t visit, Packet packet)
{
    Visit &v = visits_[visit];
    if (packet.type() == kConnack && packet.last() == 0) {
        v.answer_ms = ms_since(v.start_s);
        v.actor->send(subscribe_packet(4, 1, "door/" + std::to_string(visit), 0));
    } else if (packet.type() == kSuback) {
        v.subscribed = packet.last() < 0x80;
        v.actor->send(disconnect_packet(4));
        v.actor->close();
    }
}

bool Door::has_all() const
{
    return std::all_of(visits_.begin() + static_cast<long>(first_), visits_.end(),
                       [](const Visit &v) { return v.answer_ms >= 0 && !v.actor->is_open(); });
}

DoorResult Door::result() const
{
    DoorResult          result;
    std::vector<double> ms;
    for (size_t i = first_; i < visits_.size(); ++i) {
        const Visit &v = visits_[i];
        ms.push_back(v.answer_ms >= 0 ? v.answer_ms : ms_since(v.start_s));
        result.unanswered += v.answer_ms < 0;
        result.no_subscription += v.answer_ms >= 0 && !v.subscribed;
    }
    result.tried  = static_cast<unsigned>(ms.size());
    result.spread = spread_of(std::move(ms));
    return result;
}

// ------------------------------------------------------------------------------------------------------------- both

Honest::Honest(const Connect &options)
    : options_(options), pairs_{{crowd_, 0, options}, {crowd_, 1, options}}, door_(crowd_, options)
{
}

// At a fixed pace, whatever the broker does. What this program itself is late with is no message's latency.
void Honest::publish_due(double start_s, double seconds, unsigned &sent, Measured &measured)
{
    const double elapsed_s = now_s() - start_s;
    for (; sent * kMessagePeriod_s <= std::min(elapsed_s, seconds - kMessagePeriod_s / 2); ++sent) {
        measured.own_delay_ms = std::max(measured.own_delay_ms, (elapsed_s - sent * kMessagePeriod_s) * 1000);
        for (Pair &pair : pairs_)
            pair.publish();
    }
}

Measured Honest::measure(double seconds, double late_s)
{
    Measured measured;
    for (Pair &pair : pairs_)
        pair.begin_phase();
    door_.begin_phase();
    unsigned     sent = 0, visits = 0;
    const double start_s = now_s();
    while (now_s() - start_s < seconds) {
        publish_due(start_s, seconds, sent, measured);
        for (; visits * kVisitPeriod_s <= now_s() - start_s; ++visits)
            door_.knock();
        crowd_.step(start_s + sent * kMessagePeriod_s - now_s());
    }
    const auto all = [&] { return pairs_[0].has_all() && pairs_[1].has_all() && door_.has_all(); };
    crowd_.run_until(std::max(late_s, kAnswerLimit_s), all);
    for (size_t i = 0; i < 2; ++i) {
        measured.pairs[i] = pairs_[i].result();
        measured.cut_off |= pairs_[i].is_cut_off();
    }
    measured.door = door_.result();
    return measured;
}

std::string Honest::what_is_refused()
{
    Connect keep   = options_;
    keep.clean     = false;
    Actor &devoted = crowd_.add(kAddress), &curious = crowd_.add(kAddress);
    devoted.open();
    if (!crowd_.ask(devoted, connect_packet(4, "honest-devoted", keep), kConnack, 5))
        return "a client with a kept session is not answered";
    const auto code   = std::make_shared<uint8_t>(0x80);
    devoted.on_packet = [code](Packet packet) { *code = packet.type() == kSuback ? packet.last() : *code; };
    if (!crowd_.ask(devoted, subscribe_packet(4, 1, "honest/kept", 1), kSuback, 5) || *code >= 0x80)
        return "a kept session gets no subscription";
    if (!crowd_.ask(devoted, publish_packet(4, "honest/held", "\xFF held", {.qos = 1, .retain = true}), kPuback, 5))
        return "a retained message is not acknowledged";
    curious.open();
    if (!crowd_.ask(curious, connect_packet(4, "honest-curious", options_), kConnack, 5) ||
        !crowd_.ask(curious, subscribe_packet(4, 1, "honest/held", 0), kPublish, 5))
        return "a retained message is not held";
    return "";
}

} // namespace tarn::beside
