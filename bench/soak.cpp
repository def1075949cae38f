// soak.cpp - hours of ordinary life: pairs of clients that exchange messages at QoS 1, leave and come back, and a broker
// of which nothing may be lost and whose memory may not grow.
//
// A subscriber keeps its session; it leaves with a DISCONNECT when nothing is on its way, since what is unacknowledged
// then ends with the connection by design, and gets what was published meanwhile when it is back. A publisher leaves
// when all is acknowledged, each other time with a reset.
#include "beside/broker.h"
#include "beside/crowd.h"
#include "support/wire.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>

using namespace tarn::beside;
using tarn::test::Bytes;

namespace {

constexpr char   kAddress[]     = "127.0.0.1";
constexpr double kLost_s        = 30; // a message that has not come by then is lost
constexpr double kLeave_s       = 0.1;
constexpr double kWarmUp_s      = 1200; // memory grows until each record and each slot was a client's once
constexpr double kPayloadSize   = 64;
constexpr double kMemoryMayGrow = 0.01;

struct Settings {
    double      minutes = 60;
    unsigned    clients = 500;
    double      rate    = 500; // messages a second, of all
    std::string broker;
};

struct Totals {
    uint64_t published = 0, arrived = 0, twice = 0, lost = 0, left = 0, refused = 0;
};

// One publisher and one subscriber of a topic of their own.
class Pair {
public:
    Pair(Crowd &crowd, unsigned number, Totals &totals)
        : crowd_(crowd), name_(std::to_string(number)), publisher_(crowd.add(kAddress)),
          subscriber_(crowd.add(kAddress)), totals_(totals)
    {
        publisher_.on_packet  = [this](Packet packet) { publisher_got(packet); };
        subscriber_.on_packet = [this](Packet packet) { subscriber_got(packet); };
    }

    void join()
    {
        come(publisher_, "p" + name_, true);
        come(subscriber_, "s" + name_, false);
    }
    bool has_joined() const { return subscribed_ && publisher_is_in_; }

    void publish()
    {
        if (!publisher_is_in_ || leaving_ != nullptr)
            return;
        const uint32_t number = first_ + static_cast<uint32_t>(sent_at_s_.size());
        Bytes          payload(static_cast<size_t>(kPayloadSize), 'x');
        memcpy(&payload[payload.size() - sizeof number], &number,
               sizeof number); // in front it could read as properties
        sent_at_s_.push_back(now_s());
        publisher_.send(tarn::test::publish_packet(4, "soak/" + name_, payload, {.qos = 1, .id = number % 65535 + 1}));
        ++unacknowledged_;
        ++totals_.published;
    }

    // One of the two leaves as soon as nothing is on its way.
    void leave(bool subscriber)
    {
        if (!leaving_ && has_joined() && subscriber_is_in_)
            leaving_ = subscriber ? &subscriber_ : &publisher_;
    }
    void turn(std::mt19937 &random)
    {
        count_lost();
        if (leaving_ && sent_at_s_.empty() && unacknowledged_ == 0)
            go(random);
        if (back_at_s_ > 0 && now_s() > back_at_s_) {
            back_at_s_ = 0;
            come(subscriber_, "s" + name_, false);
        }
    }
    bool is_quiet() const { return sent_at_s_.empty(); }

private:
    void come(Actor &actor, const std::string &id, bool clean)
    {
        actor.open();
        actor.send(tarn::test::connect_packet(4, id, {.clean = clean, .keep_alive_s = 600}));
    }
    void go(std::mt19937 &random)
    {
        ++totals_.left;
        if (leaving_ == &publisher_) {
            publisher_is_in_ = false;
            if (random() % 2)
                publisher_.reset();
            else
                publisher_.send(tarn::test::disconnect_packet(4)), publisher_.close();
            come(publisher_, "p" + name_, true);
        } else {
            subscriber_is_in_ = false;
            subscriber_.send(tarn::test::disconnect_packet(4));
            subscriber_.close();
            back_at_s_ = now_s() + 1 + static_cast<double>(random() % 2000) / 1000;
        }
        leaving_ = nullptr;
    }
    void publisher_got(Packet packet)
    {
        if (packet.type() == kConnack)
            publisher_is_in_ = accepted(packet);
        else if (packet.type() == kPuback)
            --unacknowledged_;
    }
    void subscriber_got(Packet packet)
    {
        if (packet.type() == kConnack) {
            subscriber_is_in_ = accepted(packet);
            if (!subscribed_)
                subscriber_.send(tarn::test::subscribe_packet(4, 1, "soak/" + name_, 1));
        } else if (packet.type() == kSuback) {
            subscribed_ = true;
        } else if (packet.type() == kPublish && packet.size >= kPayloadSize) {
            subscriber_.send(tarn::test::ack_packet(4, 0x40, publish_id(packet)));
            uint32_t number;
            memcpy(&number, packet.data + packet.size - sizeof number, sizeof number);
            arrived(number);
        }
    }
    bool accepted(Packet packet)
    {
        totals_.refused += packet.last() != 0;
        return packet.last() == 0;
    }
    void arrived(uint32_t number)
    {
        if (number < first_ || number - first_ >= sent_at_s_.size() || sent_at_s_[number - first_] == 0) {
            ++totals_.twice;
            return;
        }
        sent_at_s_[number - first_] = 0;
        ++totals_.arrived;
        forget_arrived();
    }
    void forget_arrived()
    {
        for (; !sent_at_s_.empty() && sent_at_s_.front() == 0; ++first_)
            sent_at_s_.pop_front();
    }
    void count_lost()
    {
        for (double &sent : sent_at_s_) {
            if (sent == 0)
                continue;
            if (now_s() - sent < kLost_s)
                break;
            sent = 0;
            ++totals_.lost;
        }
        forget_arrived();
    }

    Crowd             &crowd_;
    const std::string  name_;
    Actor             &publisher_, &subscriber_;
    Totals            &totals_;
    bool               publisher_is_in_ = false, subscriber_is_in_ = false, subscribed_ = false;
    Actor             *leaving_   = nullptr; // when nothing is on its way any more
    double             back_at_s_ = 0;
    std::deque<double> sent_at_s_; // from first_ on; 0: has arrived
    uint32_t           first_          = 0;
    int                unacknowledged_ = 0;
};

class Soak {
public:
    explicit Soak(const Settings &settings)
        : settings_(settings), broker_({.tarn_broker = settings.broker, .more = {}, .passwords = false})
    {
        for (unsigned i = 0; i < settings.clients / 2; ++i)
            pairs_.push_back(std::make_unique<Pair>(crowd_, i, totals_));
    }

    bool run()
    {
        crowd_.step(0.5); // the broker starts
        for (auto &pair : pairs_) {
            pair->join();
            if (!crowd_.run_until(10, [&] { return pair->has_joined(); }))
                return fail("a client could not join");
        }
        const double start_s = now_s(), end_s = start_s + settings_.minutes * 60;
        double       next_publish_s = start_s, next_leave_s = start_s, next_report_s = start_s + 60;
        while (now_s() < end_s) {
            crowd_.step(0.001);
            for (; next_publish_s < now_s(); next_publish_s += 1 / settings_.rate)
                next().publish();
            for (; next_leave_s < now_s(); next_leave_s += kLeave_s)
                pairs_[random_() % pairs_.size()]->leave(random_() % 2);
            for (auto &pair : pairs_)
                pair->turn(random_);
            if (now_s() - start_s > kWarmUp_s && first_mb_ == 0)
                first_mb_ = broker_.memory_mb();
            if (broker_.has_ended())
                return fail("the broker has ended");
            for (; next_report_s < now_s(); next_report_s += 60)
                report((now_s() - start_s) / 60);
        }
        const auto quiet = [&] {
            for (auto &pair : pairs_) {
                pair->turn(random_);
                if (!pair->is_quiet())
                    return false;
            }
            return true;
        };
        (void)crowd_.run_until(kLost_s + 5, quiet);
        return judge();
    }

private:
    Pair &next() { return *pairs_[turn_++ % pairs_.size()]; }
    bool  fail(const char *what)
    {
        printf("FAILS: %s\n", what);
        return false;
    }
    void report(double minutes)
    {
        printf("| %.0f | %llu | %llu | %llu | %llu | %llu | %.1f |\n", minutes,
               static_cast<unsigned long long>(totals_.published), static_cast<unsigned long long>(totals_.arrived),
               static_cast<unsigned long long>(totals_.twice), static_cast<unsigned long long>(totals_.lost),
               static_cast<unsigned long long>(totals_.left), broker_.memory_mb());
        fflush(stdout);
    }
    bool judge()
    {
        const double last_mb = broker_.memory_mb();
        report(settings_.minutes);
        const auto by_design = broker_.lost_identifiers();
        printf(
            "lost %llu, of these %u with the identifier 0, by design; memory %.1f MB after %g s, %.1f MB at the end\n",
            static_cast<unsigned long long>(totals_.lost), by_design, first_mb_, kWarmUp_s, last_mb);
        if (totals_.lost > by_design)
            return fail("messages were lost");
        if (totals_.refused > 0)
            return fail("a client was refused");
        if (first_mb_ > 0 && last_mb > first_mb_ * (1 + kMemoryMayGrow))
            return fail("memory grew");
        const auto end_s = broker_.terminate(5);
        if (!end_s)
            return fail("SIGTERM did not end it within 5 s");
        printf("holds\n");
        return true;
    }

    const Settings                     settings_;
    Broker                             broker_;
    Crowd                              crowd_;
    Totals                             totals_;
    std::vector<std::unique_ptr<Pair>> pairs_;
    std::mt19937                       random_{1};
    size_t                             turn_     = 0;
    double                             first_mb_ = 0;
};

bool read_arguments(int argc, char **argv, Settings &settings)
{
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--minutes" && i + 1 < argc)
            settings.minutes = atof(argv[++i]);
        else if (word == "--clients" && i + 1 < argc)
            settings.clients = static_cast<unsigned>(atoi(argv[++i]));
        else if (word == "--rate" && i + 1 < argc)
            settings.rate = atof(argv[++i]);
        else if (word[0] != '-' && settings.broker.empty())
            settings.broker = word;
        else if (word != "--alone") // what apart.sh may add
            return false;
    }
    return !settings.broker.empty() && settings.minutes > 0 && settings.clients >= 2 && settings.rate > 0;
}

} // namespace

int main(int argc, char **argv)
{
    Settings settings;
    if (!read_arguments(argc, argv, settings)) {
        fprintf(stderr, "usage: soak [--minutes N] [--clients N] [--rate MESSAGES_A_SECOND] TARN_BROKER\n");
        return 2;
    }
    raise_file_limit();
    printf("| minute | published | arrived | came twice | lost | left and came back | memory, MB |\n"
           "|---|---|---|---|---|---|---|\n");
    return Soak(settings).run() ? 0 : 1;
}
