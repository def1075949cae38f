#include "load.h"

#include "ids.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace tarn::performance {
namespace {

enum Role : unsigned { kPublisher, kSubscriber };

// The head of every payload. It begins with a letter, since a small number there reads as a length of properties.
struct Stamp {
    char     letters[6] = {'z', 'z', 'z', 'z', 'z', 'z'};
    uint16_t flow       = 0;
    uint32_t number     = 0;
    uint32_t none       = 0;
    uint64_t sent_ns    = 0;
};
static_assert(sizeof(Stamp) == 24);

constexpr size_t   kPayloadBytes = 64;
constexpr uint64_t kGiveUp_ns    = 1000000000;
constexpr uint64_t kAside_ns     = 5000000;
constexpr uint64_t kTurn_ns      = 20000000; // longest wait
constexpr unsigned kKeepAlive_s  = 600;
constexpr double   kFinish_s     = 5;

uint64_t to_ns(double seconds)
{
    return static_cast<uint64_t>(std::max(0.0, seconds) * 1e9);
}

std::string topic_of(const LoadOptions &options, size_t flow)
{
    return options.name + "/" + std::to_string(options.pairs ? flow : 0);
}

unsigned u16_at(const uint8_t *bytes)
{
    return unsigned{bytes[0]} << 8 | bytes[1];
}

size_t after_length(const uint8_t *bytes, size_t at) // behind a length of up to four bytes
{
    while (bytes[at] >= 0x80)
        ++at;
    return at + 1;
}

} // namespace

Counts Counts::operator-(const Counts &before) const
{
    return {published - before.published, deliveries - before.deliveries, lost - before.lost, again - before.again};
}

Load::Load(const LoadOptions &options) : options_(options)
{
    for (unsigned i = 0; i < options_.publishers; ++i) {
        publishers_.push_back(&links_.add());
        publishers_[i]->role  = kPublisher;
        publishers_[i]->index = i;
        flows_.push_back({.publisher = publishers_[i],
                          .packet    = packet_of(topic_of(options_, i)),
                          .next      = std::vector<uint32_t>(options_.pairs ? 1 : options_.subscribers)});
    }
    for (unsigned i = 0; i < options_.subscribers; ++i) {
        subscribers_.push_back(&links_.add());
        subscribers_[i]->role  = kSubscriber;
        subscribers_[i]->index = i;
    }
    if (options_.latencies)
        latencies_ns_.reserve(1 << 20);
}

Bytes Load::packet_of(const std::string &topic) const
{
    return test::publish_packet(options_.level, topic, std::string(kPayloadBytes, 'z'), {.qos = options_.qos});
}

bool Load::set_up()
{
    return connect(subscribers_) && connect(publishers_) && subscribe();
}

bool Load::connect(std::span<Link *const> links)
{
    for (Link *const link : links)
        if (!links_.open(*link, "127.0.0.1"))
            return false;
    const auto packet = [&](size_t) {
        return test::connect_packet(options_.level, receiver_id(), {.keep_alive_s = kKeepAlive_s});
    };
    return links_.ask_all(links, packet, beside::kConnack);
}

bool Load::subscribe()
{
    const auto packet = [&](size_t i) {
        return test::subscribe_packet(options_.level, 1, topic_of(options_, i), options_.qos);
    };
    return links_.ask_all(subscribers_, packet, beside::kSuback);
}

void Load::run_for(double seconds)
{
    start_ns_ = now_ns();
    for (Flow &flow : flows_)
        flow.first = flow.sent;
    run_until(now_ns() + to_ns(seconds), [] { return false; });
    finish(kFinish_s);
}

bool Load::publish(uint32_t messages, double limit_s)
{
    const double start_s = beside::now_s();
    end_number_          = flows_[0].sent + messages;
    run_until(now_ns() + to_ns(limit_s), [&] { return flows_[0].sent == end_number_; });
    const bool sent = flows_[0].sent == end_number_;
    end_number_     = UINT32_MAX;
    return finish(limit_s - (beside::now_s() - start_s)) && sent;
}

// Until nothing is in flight, so that each run begins alike; whether that is so in time.
bool Load::finish(double limit_s)
{
    const auto finished = [&] {
        return std::all_of(flows_.begin(), flows_.end(), [&](Flow &flow) { return finished_of(flow) == flow.sent; });
    };
    sending_ = false;
    run_until(now_ns() + to_ns(limit_s), finished);
    sending_ = true;
    return finished();
}

// So many are not in flight any more.
uint32_t Load::finished_of(const Flow &flow) const
{
    return options_.qos > 0 ? std::min(flow.arrived, flow.acknowledged) : flow.arrived;
}

void Load::run_until(uint64_t end_ns, const std::function<bool()> &done)
{
    uint64_t aside_ns = 0;
    moved_ns_ = turn_ns_ = now_ns();
    while (!failed_ && turn_ns_ < end_ns && !done()) {
        send_what_may_go();
        turn(wait_ns());
        if (turn_ns_ > moved_ns_ + kGiveUp_ns)
            give_up();
        if (turn_ns_ > aside_ns + kAside_ns) {
            aside();
            aside_ns = turn_ns_;
        }
    }
}

void Load::turn(uint64_t limit_ns)
{
    links_.wait(limit_ns, [&](Link &link) {
        turn_ns_         = now_ns();
        const bool alive = link.read(links_.buffer(), [&](Packet packet) { take(link, packet); });
        failed_ |= !alive || !link.flush();
    });
    turn_ns_ = now_ns();
}

// The number behind the last one that this publisher may send by now.
uint32_t Load::end_of(const Flow &flow) const
{
    if (!sending_)
        return flow.sent;
    const uint32_t finished = finished_of(flow);
    uint32_t       end      = finished + options_.window;
    if (options_.rate > 0) {
        const double elapsed_s = static_cast<double>(turn_ns_ - start_ns_) / 1e9;
        end = std::min(finished + kRing, flow.first + static_cast<uint32_t>(elapsed_s * options_.rate) + 1);
    }
    return std::min(end, end_number_);
}

uint64_t Load::due_ns(const Flow &flow, uint32_t number) const
{
    return start_ns_ + static_cast<uint64_t>((number - flow.first) / options_.rate * 1e9);
}

uint64_t Load::wait_ns() const
{
    if (options_.rate <= 0 || !sending_)
        return kTurn_ns;
    uint64_t next_ns = UINT64_MAX;
    for (const Flow &flow : flows_)
        next_ns = std::min(next_ns, due_ns(flow, flow.sent));
    return next_ns - std::min(next_ns, now_ns());
}

void Load::send_what_may_go()
{
    for (Flow &flow : flows_) {
        const uint32_t end = end_of(flow);
        if (flow.sent >= end)
            continue;
        while (flow.sent < end)
            send(flow);
        failed_ |= !flow.publisher->flush();
    }
}

void Load::send(Flow &flow)
{
    uint8_t *const stamp_at = flow.packet.data() + flow.packet.size() - kPayloadBytes;
    const Stamp    stamp{.flow    = static_cast<uint16_t>(flow.publisher->index),
                         .number  = flow.sent,
                         .sent_ns = options_.rate > 0 ? due_ns(flow, flow.sent) : turn_ns_};
    memcpy(stamp_at, &stamp, sizeof stamp);
    if (options_.qos > 0) {
        const unsigned id       = flow.sent % 65535 + 1;
        uint8_t *const id_at    = stamp_at - (options_.level == 5 ? 1 : 0) - 2;
        id_at[0]                = static_cast<uint8_t>(id >> 8);
        id_at[1]                = static_cast<uint8_t>(id);
        flow.unacknowledged[id] = true;
    }
    flow.missing[flow.sent % kRing] = static_cast<uint16_t>(flow.next.size());
    flow.publisher->queue(flow.packet);
    ++flow.sent;
    ++counts_.published;
}

void Load::take(Link &link, Packet packet)
{
    switch (packet.type()) {
    case beside::kPublish:
        deliver(link, packet);
        break;
    case kPuback:
    case kPubcomp:
        if (link.role == kPublisher)
            note_acknowledged(flows_[link.index], u16_at(packet.data + 2));
        break;
    case kPubrec:
        answer(link, 0x62, u16_at(packet.data + 2));
        break;
    case kPubrel:
        answer(link, 0x70, u16_at(packet.data + 2));
        break;
    default:
        break;
    }
}

// 3q length topic [identifier] [properties] stamp ...
void Load::deliver(Link &link, Packet packet)
{
    const unsigned qos   = packet.qos();
    const size_t   topic = after_length(packet.data, 1);
    size_t         at    = topic + 2 + u16_at(packet.data + topic);
    if (qos > 0) {
        if (options_.acknowledge)
            answer(link, qos == 1 ? 0x40 : 0x50, u16_at(packet.data + at));
        at += 2;
    }
    if (options_.level == 5) {
        const uint8_t properties = packet.data[at]; // fewer than 128 bytes
        at += 1u + properties;
    }
    Stamp stamp;
    if (link.role != kSubscriber || at + sizeof stamp > packet.size)
        return;
    memcpy(&stamp, packet.data + at, sizeof stamp);
    if (stamp.flow < flows_.size())
        arrive(flows_[stamp.flow], options_.pairs ? 0 : link.index, stamp.number, stamp.sent_ns);
}

void Load::arrive(Flow &flow, uint32_t slot, uint32_t number, uint64_t sent_ns)
{
    if (number < flow.next[slot] || number >= flow.sent) {
        ++counts_.again;
        return;
    }
    moved_ns_ = turn_ns_;
    ++counts_.deliveries;
    counts_.lost += number - flow.next[slot];
    for (; flow.next[slot] <= number; ++flow.next[slot])
        --flow.missing[flow.next[slot] % kRing];
    while (flow.arrived < flow.sent && flow.missing[flow.arrived % kRing] == 0)
        ++flow.arrived;
    if (options_.latencies)
        latencies_ns_.push_back(static_cast<uint32_t>(turn_ns_ - std::min(turn_ns_, sent_ns)));
}

void Load::note_acknowledged(Flow &flow, unsigned id)
{
    moved_ns_ = turn_ns_;
    flow.acknowledged += flow.unacknowledged[id];
    flow.unacknowledged[id] = false;
}

void Load::answer(Link &link, uint8_t first, unsigned id)
{
    const uint8_t high = static_cast<uint8_t>(id >> 8), low = static_cast<uint8_t>(id);
    if (options_.level ==
        5) // with the reason code, since without it this broker would take the client for one of 3.1.1
        link.queue(std::array<uint8_t, 5>{first, 3, high, low, 0});
    else
        link.queue(std::array<uint8_t, 4>{first, 2, high, low});
}

// What is in flight for so long is lost, and the window must not wait for it.
void Load::give_up()
{
    for (Flow &flow : flows_) {
        for (uint32_t &next : flow.next) {
            counts_.lost += flow.sent - next;
            next = flow.sent;
        }
        flow.unacknowledged.assign(flow.unacknowledged.size(), false);
        flow.missing.assign(flow.missing.size(), 0);
        flow.arrived = flow.acknowledged = flow.sent;
    }
    moved_ns_ = turn_ns_;
}

} // namespace tarn::performance
