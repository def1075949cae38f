// A day in the life of a broker, second by second: housekeeping turns, scans and clients, all on one thread and on the
// test's clock. A model beside it says who is online, whose will is on its way and what has ended; after every second
// the broker must agree, and at the end of every hour, when all have left, nothing may be there that was not before.
#include "life_fixture.h"

#include "api/api_internal.h"
#include "support/process_state.h"

#include <malloc.h>
#include <map>
#include <optional>
#include <random>

using namespace tarn;
using namespace tarn::test;

namespace {

constexpr int      kDay_s       = 86400;
constexpr int      kHour_s      = 3600;
constexpr int      kWarmedUp_s  = 8 * kHour_s; // by then working storage has grown as far as it will
constexpr int      kCalm_s      = 700;         // of each hour, without anybody new
constexpr uint32_t kDevices     = 60;
constexpr int      kDelay_s     = 600; // of a will, at most
constexpr int      kKeepAlive_s = 20;

enum class Will { None, Late, AtOnce };

// What one device is doing, and what the broker must think of it.
struct Device {
    std::string                id;
    std::unique_ptr<Line>      line;
    unsigned                   level   = 4;
    bool                       clean   = true;
    Will                       will    = Will::None;
    int                        delay_s = 0;
    int                        acts_at = 0; // comes, says something, or goes
    int                        goes_at = 0;
    std::optional<int>         silent_since;
    std::optional<std::string> will_due; // how it is named in `due`
};

class Day {
public:
    explicit Day(unsigned seed) : random_(seed), broker_(world_.host.broker)
    {
        broker_.keepalive_timeout = 300;
        broker_.event_cb          = [](broker_t *, uint32_t kind, const char *text) {
            if (kind == BROKER_EVENT_WILL)
                published().push_back(text);
        };
        published().clear();
        for (uint32_t n = 0; n < kDevices; ++n) {
            devices_[n].id      = "day" + std::to_string(n);
            devices_[n].acts_at = one_of(kHour_s - kCalm_s);
        }
    }

    void live()
    {
        for (second_ = 1; second_ <= kDay_s && !testing::Test::HasFailure(); ++second_) {
            clock_.advance_ms(1000);
            for (Device &device : devices_)
                turn(device);
            if (one_of(60) == 0 && !calm())
                retain();
            api::housekeeping_turn(broker_, clock_.wall_s());
            qos_reliable_scan_queue();
            collect_timed_out();
            check_second();
            if (second_ % kHour_s == 0)
                check_hour();
        }
    }

    void report()
    {
        printf("%d connects, %d timed out, %d wills late, %d called off, %d at once, %d retained, %d reports, "
               "%.1f KiB of heap after eight hours, %.1f KiB at the end\n",
               connects_, timeouts_, late_, called_off_, lasting_, retained_, reports_,
               static_cast<double>(first_heap_) / 1024, static_cast<double>(last_heap_) / 1024);
        EXPECT_GT(connects_, 2000);
        EXPECT_GT(timeouts_, 100);
        EXPECT_GT(late_, 100);
        EXPECT_GT(called_off_, 100);
        EXPECT_EQ(lasting_, 24);
        EXPECT_GT(retained_, 500);
        EXPECT_EQ(reports_, kDay_s / 60); // the first with the first turn
    }

private:
    static std::vector<std::string> &published()
    {
        static std::vector<std::string> texts;
        return texts;
    }

    int  one_of(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
    bool calm() const { return second_ % kHour_s == 0 || second_ % kHour_s > kHour_s - kCalm_s; }

    // ---- devices

    void turn(Device &device)
    {
        if (calm() && device.line)
            return leave(device);
        if (second_ < device.acts_at || calm() || device.silent_since)
            return;
        if (!device.line)
            return come(device);
        if (second_ >= device.goes_at)
            return leave(device);
        device.line->send(one_of(2) ? wire("C0 00")
                                    : publish_packet(device.level, topic_of(device), "hello", {.qos = 1, .id = 7}));
        device.acts_at = second_ + 1 + one_of(kKeepAlive_s);
    }

    static std::string topic_of(const Device &device) { return "news/" + device.id; }

    const Device &neighbour_of(const Device &device) const
    {
        return devices_[(&device - devices_ + 1) % static_cast<int>(kDevices)];
    }

    void come(Device &device)
    {
        device.line    = std::make_unique<Line>(world_);
        device.level   = one_of(2) ? 5 : 4;
        device.clean   = one_of(8) != 0;
        device.goes_at = second_ + 10 + one_of(600);
        device.acts_at = second_ + 1 + one_of(kKeepAlive_s);
        choose_will(device);
        Connect options;
        options.clean        = device.clean;
        options.keep_alive_s = kKeepAlive_s;
        if (device.level == 5 && !device.clean && one_of(2))
            options.session_expiry_s = 60 + static_cast<uint32_t>(one_of(600));
        if (device.will != Will::None)
            options.will = Will_of(device);
        if (device.will_due) { // it has not vanished after all
            ++called_off_;
            due_.erase(*device.will_due);
            device.will_due.reset();
        }
        device.line->send(connect_packet(device.level, device.id, options));
        device.line->send(subscribe_packet(device.level, 1, topic_of(neighbour_of(device)), 1));
        EXPECT_FALSE(device.line->gets().empty()) << device.id;
        ++connects_;
    }

    // A will without delay keeps its record for good, so there is one an hour. A kept session would bring its will back
    // without a text, which keeps a record too.
    void choose_will(Device &device)
    {
        device.will = Will::None;
        if (!device.clean)
            return;
        if (lasting_given_ <= second_ / kHour_s) {
            ++lasting_given_;
            device.will = Will::AtOnce;
        } else if (one_of(2)) {
            device.level   = 5;
            device.will    = Will::Late;
            device.delay_s = 1 + one_of(kDelay_s);
        }
    }

    static tarn::test::Will Will_of(const Device &device)
    {
        const auto delay = static_cast<uint32_t>(device.delay_s);
        return {"will/" + device.id, "gone", 0, false,
                device.will == Will::Late
                    ? wire("18 00 00") + Bytes{static_cast<uint8_t>(delay >> 8), static_cast<uint8_t>(delay)}
                    : Bytes{}};
    }

    void leave(Device &device)
    {
        const bool vanishes = device.will == Will::AtOnce || (!calm() && one_of(4) != 0);
        if (!vanishes)
            device.line->send(device.level == 5 ? wire("E0 02 00 00") : wire("E0 00"));
        else if (!calm() && one_of(3) == 0 && device.will != Will::AtOnce)
            return void(device.silent_since = second_); // nobody hears of it until its time is up
        else
            device.line->drop();
        gone(device, vanishes);
    }

    void gone(Device &device, bool vanished)
    {
        EXPECT_TRUE(device.line->is_closed()) << device.id;
        device.line.reset();
        device.silent_since.reset();
        device.acts_at = second_ + 1 + one_of(900);
        if (!vanished)
            return;
        if (device.will == Will::AtOnce)
            ++lasting_;
        if (device.will == Will::Late) {
            device.will_due = device.id;
            due_[device.id] = second_ + device.delay_s;
        }
    }

    // ---- the host

    void retain()
    {
        ++retained_;
        const std::string topic = "kept/" + std::to_string(one_of(100));
        packet_handler_broker_publish(topic.c_str(), reinterpret_cast<const uint8_t *>("x"), 1, 0, 1,
                                      1 + static_cast<uint32_t>(one_of(300)));
    }

    // ---- what must be

    // Deliveries that nobody acknowledges keep a silent device active, so its last second is the record's to tell.
    void collect_timed_out()
    {
        for (Device &device : devices_) {
            if (!device.silent_since)
                continue;
            if (mqtt_client_t *const record = device.line->record()) {
                EXPECT_LT(clock_.mono_ms() - record->last_active, 1000u * (kKeepAlive_s * 3 / 2 + 10)) << device.id;
                continue;
            }
            EXPECT_GE(second_ - *device.silent_since, kKeepAlive_s * 3 / 2 - kKeepAlive_s) << device.id;
            ++timeouts_;
            gone(device, true);
        }
    }

    void check_second()
    {
        for (const std::string &text : std::exchange(published(), {}))
            take_published(text);
        for (const auto &[id, at] : due_)
            EXPECT_GT(at, second_) << "the will of " << id << " was due at second " << at;
        int32_t online = 0;
        for (const Device &device : devices_) {
            online += device.line != nullptr;
            EXPECT_TRUE(!device.line || device.line->record()) << device.id << " was closed at second " << second_;
        }
        EXPECT_EQ(client_get_connected_count(), static_cast<uint32_t>(online));
        EXPECT_EQ(g_will_delay_client_count, static_cast<int32_t>(due_.size()) + lasting_);
        EXPECT_EQ(g_client_mgr.used_count, online + static_cast<int32_t>(due_.size()) + lasting_);
        EXPECT_EQ(g_mqtt_stats.timeout, static_cast<uint32_t>(timeouts_));
        EXPECT_EQ(g_mqtt_stats.will_sent, static_cast<uint32_t>(late_ + lasting_));
        EXPECT_LE(g_sub_mgr.sub_count, static_cast<int32_t>(kDevices));
        if (g_mqtt_stats.period_rx == 0 && clock_.wall_s() % 60 == first_report_ % 60)
            ++reports_;
    }

    void take_published(const std::string &text)
    {
        for (Device &device : devices_) {
            if (text.find("\"clientId\":\"" + device.id + "\"") == std::string::npos)
                continue;
            if (!device.will_due)
                return; // at once, counted where its device went
            EXPECT_EQ(due_[device.id], second_) << device.id;
            due_.erase(device.id);
            device.will_due.reset();
            ++late_;
            return;
        }
        ADD_FAILURE() << "whose will is " << text;
    }

    // The tests are run without the allocator's cache (CMakeLists.txt), whose chunks count as used.
    static size_t heap_room() { return getenv("GLIBC_TUNABLES") ? 6000 : 100000; }

    void check_hour()
    {
        EXPECT_TRUE(due_.empty());
        EXPECT_EQ(g_pending_queue, nullptr);
        EXPECT_EQ(g_sub_mgr.retain_count, 0);
        for (const mqtt_client_t *const entry : g_client_mgr.by_handle)
            ASSERT_EQ(entry, nullptr);
        for (const mqtt_client_t *const entry : g_client_mgr.by_cid)
            ASSERT_EQ(entry, nullptr);
        last_heap_ = mallinfo2().uordblks;
        if (second_ == kHour_s)
            first_descriptors_ = descriptor_count();
        if (second_ == kWarmedUp_s)
            first_heap_ = last_heap_;
        EXPECT_EQ(descriptor_count(), first_descriptors_);
        if (second_ > kWarmedUp_s) {
            EXPECT_LE(last_heap_, first_heap_ + heap_room()) << "a byte for each who came";
        }
    }

    ManualClock                clock_;
    std::minstd_rand           random_;
    World                      world_;
    broker_t                  &broker_;
    Device                     devices_[kDevices];
    std::map<std::string, int> due_; // id, second
    int                        second_        = 0;
    int                        lasting_given_ = 0, lasting_ = 0, late_ = 0, called_off_ = 0, timeouts_ = 0;
    int                        connects_ = 0, retained_ = 0, reports_ = 0;
    int64_t                    first_report_ = clock_.wall_s() + 1;
    size_t                     first_heap_ = 0, last_heap_ = 0;
    int                        first_descriptors_ = 0;
};

} // namespace

TEST(day, of_connects_wills_expiries_and_reports_leaves_what_the_rules_say)
{
    const UnsyncedFiles unsynced;
    Day                 day(20);
    {
        const LogCapture quiet(AGENT_LOG_ERROR);
        day.live();
    }
    day.report();
}
