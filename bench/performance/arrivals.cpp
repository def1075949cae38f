#include "arrivals.h"

#include "ids.h"

namespace tarn::performance {
namespace {

constexpr uint64_t kAnswerComes_ns = 2000000000;
constexpr uint64_t kLook_ns        = 100000000;

// Each from an address of its own, since the ports of one would not last.
std::string address_of(unsigned index)
{
    return "127.0.1." + std::to_string(index + 1);
}

} // namespace

Arrivals::Arrivals(unsigned level, unsigned at_once) : level_(level)
{
    for (unsigned i = 0; i < at_once; ++i) {
        arrivals_.push_back({.link = &links_.add()});
        arrivals_[i].link->index = i;
    }
}

void Arrivals::run_for(double seconds)
{
    const uint64_t end_ns  = now_ns() + static_cast<uint64_t>(seconds * 1e9);
    uint64_t       look_ns = 0;
    while (now_ns() < end_ns) {
        if (now_ns() > look_ns + kLook_ns) {
            replace_unanswered();
            look_ns = now_ns();
        }
        links_.wait(kLook_ns, [&](Link &link) { look_after(link); });
    }
}

void Arrivals::come(Arrival &arrival)
{
    Link &link = *arrival.link;
    if (!links_.open(link, address_of(link.index))) {
        link.close();
        arrival.since_ns = 0;
        return;
    }
    arrival.since_ns = now_ns();
    link.queue(test::connect_packet(level_, crowd_id(), {.keep_alive_s = 600}));
    link.flush(); // an error shows as an event, too
}

void Arrivals::look_after(Link &link)
{
    bool answered = false;
    if (!link.is_open())
        return; // an event of the connection before
    const bool alive = link.flush() && link.read(links_.buffer(),
                                                 [&](Packet packet) { answered |= packet.type() == beside::kConnack; });
    if (!alive || answered) {
        link.queue(test::disconnect_packet(level_));
        link.flush();
        link.close();
        (answered ? served_ : unanswered_) += 1;
        come(arrivals_[link.index]);
    }
}

void Arrivals::replace_unanswered()
{
    for (Arrival &arrival : arrivals_)
        if (arrival.since_ns == 0 || now_ns() > arrival.since_ns + kAnswerComes_ns) {
            unanswered_ += arrival.since_ns != 0;
            come(arrival);
        }
}

} // namespace tarn::performance
