// Random lives of a state with its records: restarts, and kills and losses of power at any moment, bring back what was
// there. A seed is a life.
#include "standard/records/checkpoint.h"
#include "state_support.h"
#include "support/log_capture.h"
#include "support/timing.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

using namespace tarn;
using namespace tarn::standard;
using namespace tarn::test;

namespace {

constexpr const char *kTopics[]  = {"a", "a/b", "a/b/c", "b", "b//d", "$SYS/e"};
constexpr const char *kFilters[] = {"a", "a/b", "#", "+/b/#", "b/+", "$share/one/a/#", "$share/two/b", "$share/one/b"};
constexpr const char *kIds[]     = {"anna", "bert", "carl", "dora", "emil"};

struct ClientLimits final : ReceiverLimits {
    uint16_t receive_maximum() const override { return 3; }
    bool     takes(const Outgoing &) const override { return true; }
};

// The journal is small, so that checkpoints come often, and take many steps.
constexpr JournalLimits kJournalLimits = {.most_of_state = 600, .least_checkpoint = 1000, .retry_ms = 1};

// Changes a state as the engine does. Each change makes one record at most.
class Life {
public:
    Life(TestDisk &disk, unsigned seed) : disk_(disk), random_(seed) { start(); }

    void change()
    {
        ++begun_;
        choose_change();
        history_.push_back(lines_of(*state_));
        ChangeWaiter &waiter = *waiters_.emplace_back(std::make_unique<ChangeWaiter>());
        waiter.life          = this;
        waiter.number        = begun_;
        waiter.saved         = [](persist::SaveWaiter &saved) noexcept {
            const auto &self = static_cast<ChangeWaiter &>(saved);
            self.life->note_told(self.number);
        };
        waiter.unsaved = 0; // the journal alone tells it
        ASSERT_TRUE(journal_->wait(recorder_->position(), waiter));
        if (waiter.unsaved == 0) // it made no record, or is told already
            note_told(begun_);
        for (size_t steps = below(3); steps > 0; --steps)
            checkpointer_->step();
        while (journal_->unsynced() > 2000) // so that the thread keeps up, and there are checkpoints
            pause_ms(1);
    }
    // The life goes on with what was restored.
    void restart()
    {
        const Lines    before       = lines_of(*state_);
        const uint64_t last_session = last_kept_number();
        stop();
        start();
        EXPECT_EQ(lines_of(*state_), before);
        EXPECT_GE(state_->sessions.last_number(), last_session);
        check_numbers();
    }
    // Changes go on until a checkpoint has ended.
    void finish_checkpoint()
    {
        const std::string before = newest_state();
        for (int changes = 0; newest_state() == before; ++changes) {
            ASSERT_LT(changes, 20000);
            change();
            if (changes > 200) // enough is written that one has begun
                pause_ms(1);
        }
    }
    void stop()
    {
        EXPECT_EQ(journal_->close(), 0u);
        checkpointer_.reset();
        state_.reset();
        journal_.reset();
    }

    int          told() const { return told_; }   // number of the last change that was said to be saved
    int          begun() const { return begun_; } // of the latest
    const Lines &after(int change) const { return history_[static_cast<size_t>(change)]; }

private:
    struct ChangeWaiter final : persist::SaveWaiter {
        Life *life   = nullptr;
        int   number = 0;
    };

    // By the journal's thread, too.
    void note_told(int number)
    {
        int told = told_;
        while (told < number && !told_.compare_exchange_weak(told, number)) {}
    }

    void start()
    {
        state_        = std::make_unique<State>(Limits{});
        journal_      = std::make_unique<Journal>(disk_, kJournalLimits);
        recorder_     = std::make_unique<Recorder>(*journal_);
        checkpointer_ = std::make_unique<Checkpointer>(*state_, *journal_);
        Restorer restorer(*state_, kNow_ms);
        ASSERT_EQ(journal_->open(kStateDirectory, restorer).status, OpenStatus::Ok);
        restorer.finish();
        for (Session *session = state_->sessions.first(); session; session = session->next)
            session->deliveries.set_sink(recorder_.get());
        if (restorer.has_key())
            return;
        state_->id_key = {{1, 2, 3, 4}};
        expect_recorded(recorder_->key(state_->id_key));
    }

    // ---- Chances

    size_t                            below(size_t bound) { return random_() % bound; }
    template <class T, size_t size> T one_of(T (&all)[size]) { return all[below(size)]; }

    // Null: there is none.
    Session *any_session()
    {
        Session *session = state_->sessions.first();
        for (size_t left = session ? below(state_->sessions.count()) : 0; left > 0; --left)
            session = session->next;
        return session;
    }

    void choose_change()
    {
        Session *const session = any_session();
        if (!session || below(12) == 0)
            return connect();
        switch (below(16)) {
        case 0:
            return go_away(*session);
        case 1:
            return below(3) == 0 ? end(*session) : go_away(*session);
        case 2:
        case 3:
            return subscribe(*session);
        case 4:
            return unsubscribe(*session);
        case 5:
            return release(*session);
        case 6:
            return remove_retained();
        case 7:
        case 8:
        case 9:
            return acknowledge(*session);
        case 10:
        case 11:
        case 12:
            return send(*session);
        default:
            return publish();
        }
    }

    // ---- Changes

    MessageRef message(std::string_view topic)
    {
        const std::string payload(below(10) == 0 ? 700 : below(30), static_cast<char>('a' + below(26)));
        const Session    *sender = below(2) ? any_session() : nullptr;
        return MessageRef::make({.number     = ++state_->last_message,
                                 .expires_ms = below(2) ? 0 : kNow_ms + 1 + below(1000),
                                 .sender     = sender ? sender->number : 0,
                                 .qos        = static_cast<uint8_t>(below(3)),
                                 .retain     = below(2) == 0,
                                 .topic      = topic,
                                 .properties = bytes_of(below(2) ? "" : "properties"),
                                 .payload    = bytes_of(payload)});
    }
    void set_will(Session &session)
    {
        session.will = {};
        if (below(2) == 0)
            session.will = {message(one_of(kTopics)), static_cast<uint32_t>(below(9)), std::nullopt};
        if (session.will.message && below(2) == 0)
            session.will.expiry_s = static_cast<uint32_t>(below(9));
    }

    void connect()
    {
        const std::string_view id      = one_of(kIds);
        Session               *session = state_->sessions.find(id);
        if (session && !session->is_kept()) { // it ends with its connection
            end(*session);
            session = nullptr;
        }
        const bool is_new = !session;
        if (is_new)
            session = state_->sessions.make(id, state_->bounds());
        session->expiry_s = is_new && below(4) == 0 ? 0 : static_cast<uint32_t>(1 + below(99));
        session->away_ms  = 0;
        set_will(*session);
        session->deliveries.set_sink(session->is_kept() ? recorder_.get() : nullptr);
        session->deliveries.resume();
        if (session->is_kept())
            expect_recorded(recorder_->session(*session));
    }
    void go_away(Session &session)
    {
        session.deliveries.absent();
        session.away_ms = kNow_ms - 1 - below(1000);
        if (below(2) == 0)
            session.will = {};
        if (session.is_kept())
            expect_recorded(recorder_->session(session));
    }
    void end(Session &session)
    {
        if (session.is_kept())
            expect_recorded(recorder_->session_is_gone(session));
        state_->subscriptions.remove_all_of(session.number);
        state_->sessions.destroy(session);
    }

    void subscribe(Session &session)
    {
        const std::string_view    filter  = one_of(kFilters);
        const SubscriptionOptions options = {.identifier          = static_cast<uint32_t>(below(4)),
                                             .qos                 = static_cast<uint8_t>(below(3)),
                                             .retain_handling     = static_cast<uint8_t>(below(3)),
                                             .no_local            = below(2) == 0,
                                             .retain_as_published = below(2) == 0};
        state_->subscriptions.add(session.number, filter, options);
        if (session.is_kept())
            expect_recorded(recorder_->subscribed(session, filter, options));
    }
    void unsubscribe(Session &session)
    {
        const std::string_view filter = one_of(kFilters);
        if (state_->subscriptions.remove(session.number, filter) && session.is_kept())
            expect_recorded(recorder_->unsubscribed(session, filter));
    }

    void publish()
    {
        const MessageRef   made      = message(one_of(kTopics));
        const uint32_t     numbers[] = {1, 200, 268435455};
        Session *const     sender    = below(2) ? any_session() : nullptr;
        PublicationEffects effects   = {.is_retained = below(3) == 0, .sender = sender};
        if (sender) {
            effects.packet_id = static_cast<uint16_t>(1 + below(5) * 13107);
            EXPECT_TRUE(sender->incoming.restore(effects.packet_id));
        }
        if (effects.is_retained && made->payload().empty())
            state_->retained.remove(made->topic());
        else if (effects.is_retained)
            state_->retained.set(made);
        recorder_->begin_publication(made);
        for (Session *session = state_->sessions.first(); session; session = session->next)
            if (below(2) == 0)
                (void)session->deliveries.offer(made, static_cast<uint8_t>(below(3)), below(2) == 0,
                                                std::span(numbers).first(below(4)));
        expect_recorded(recorder_->end_publication(effects));
    }
    void release(Session &session)
    {
        std::vector<uint16_t> held;
        session.incoming.for_each([&](uint16_t packet_id) { held.push_back(packet_id); });
        if (held.empty())
            return;
        const uint16_t packet_id = held[below(held.size())];
        session.incoming.release(packet_id);
        if (session.is_kept())
            expect_recorded(recorder_->released(session, packet_id));
    }
    void remove_retained()
    {
        const std::string_view topic = one_of(kTopics);
        if (state_->retained.remove(topic))
            expect_recorded(recorder_->retained_is_gone(topic));
    }

    void send(Session &session)
    {
        if (!session.deliveries.is_connected())
            session.deliveries.resume();
        (void)session.deliveries.next(kNow_ms, ClientLimits{});
    }
    void acknowledge(Session &session)
    {
        std::vector<DeliveryRecord> on_the_way;
        session.deliveries.for_each([&](const DeliveryRecord &delivery) {
            if (delivery.packet_id != 0)
                on_the_way.push_back(delivery);
        });
        if (on_the_way.empty())
            return;
        const DeliveryRecord &delivery = on_the_way[below(on_the_way.size())];
        const uint8_t         reason   = below(8) == 0 ? 0x83 : 0;
        if (delivery.qos == 1)
            session.deliveries.puback(delivery.packet_id, reason);
        else if (!delivery.received)
            session.deliveries.pubrec(delivery.packet_id, reason);
        else
            session.deliveries.pubcomp(delivery.packet_id, reason);
    }

    // ---- Checks

    static void expect_recorded(bool recorded) { EXPECT_TRUE(recorded); }

    uint64_t last_kept_number() const
    {
        uint64_t last = 0;
        for (const Session *session = state_->sessions.first(); session; session = session->next)
            last = session->is_kept() ? std::max(last, session->number) : last;
        return last;
    }
    // No number that is known comes again.
    void check_numbers() const
    {
        const auto check = [this](const MessageRef &message) {
            EXPECT_LE(message->number(), state_->last_message);
            EXPECT_LE(message->sender(), state_->sessions.last_number());
        };
        for (const MessageRef &message : state_->retained)
            check(message);
        for (const Session *session = state_->sessions.first(); session; session = session->next)
            session->deliveries.for_each([&](const DeliveryRecord &delivery) {
                if (delivery.message)
                    check(delivery.message);
            });
        EXPECT_EQ(state_->id_key.words[3], 4u);
    }
    static std::string newest_state()
    {
        std::string newest;
        for (const auto &entry : fs::directory_iterator(kStateDirectory))
            if (const std::string name = entry.path().filename(); name.starts_with("state-") && !name.ends_with(".tmp"))
                newest = std::max(newest, name);
        return newest;
    }

    TestDisk                                  &disk_;
    std::mt19937                               random_;
    std::unique_ptr<State>                     state_;
    std::unique_ptr<Journal>                   journal_;
    std::unique_ptr<Recorder>                  recorder_;
    std::unique_ptr<Checkpointer>              checkpointer_;
    std::vector<std::unique_ptr<ChangeWaiter>> waiters_;
    std::vector<Lines>                         history_{Lines()};
    std::atomic<int>                           begun_{0};
    std::atomic<int>                           told_{0};
};

// What a kill, or a loss of power, at one moment would leave.
struct Moment {
    Files killed, powerless;
    int   told, begun;
};

Moment moment_of(TestDisk &disk, const Life &life)
{
    Moment moment;
    moment.told      = life.told();
    moment.killed    = files_in(kStateDirectory);
    moment.powerless = disk.after_power_loss();
    moment.begun     = life.begun();
    return moment;
}

// Restoring gives the state after one change: one that was said to be saved, or a later one.
void expect_right(const Files &files, const Moment &moment, const Life &life)
{
    write_files("copy", files);
    const std::unique_ptr<State> again = restored("copy");
    ASSERT_TRUE(again);
    const Lines lines = lines_of(*again);
    int         found = moment.told;
    while (found <= moment.begun && life.after(found) != lines)
        ++found;
    if (found <= moment.begun)
        return;
    EXPECT_EQ(lines, life.after(moment.told)) << "nor what there was up to change " << moment.begun;
}

// The last moment is behind the end.
void expect_right_at_each(const std::vector<Moment> &moments, const Life &life)
{
    EXPECT_EQ(moments.back().told, moments.back().begun);
    for (size_t i = 0; i < moments.size() && !testing::Test::HasFailure(); ++i) {
        SCOPED_TRACE("call " + std::to_string(i));
        expect_right(moments[i].killed, moments[i], life);
        expect_right(moments[i].powerless, moments[i], life);
    }
}

} // namespace

TEST(records_random, a_restart_brings_all_back)
{
    for (unsigned seed = 0; seed < 60 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        fs::remove_all("data");
        TestDisk disk;
        Life     life(disk, seed);
        for (int i = 0; i < 300 && !HasFailure(); ++i) {
            life.change();
            if (i % 29 == 28)
                life.restart();
        }
        life.stop();
    }
}

// Each of these lives has two checkpoints or more, with changes while they are under way.
TEST(records_random, so_does_a_start_from_a_checkpoint)
{
    for (unsigned seed = 0; seed < 20 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        fs::remove_all("data");
        TestDisk disk;
        Life     life(disk, seed);
        for (int i = 0; i < 4 && !HasFailure(); ++i) {
            for (int changes = 0; changes < 60; ++changes)
                life.change();
            if (i % 2)
                life.finish_checkpoint();
            life.restart();
        }
        life.stop();
    }
}

TEST(records_random, a_kill_at_any_call_loses_nothing_that_was_said_to_be_saved)
{
    for (const unsigned seed : {1, 2}) {
        SCOPED_TRACE(seed);
        fs::remove_all("data");
        TestDisk disk;
        disk.most_at_once = 200; // so that writes end in the middle of records
        Life                life(disk, seed);
        std::vector<Moment> moments;
        disk.before = [&](DiskCall call) {
            if (call != DiskCall::Read)
                moments.push_back(moment_of(disk, life));
            return 0;
        };
        for (int i = 0; i < 150; ++i)
            life.change();
        life.finish_checkpoint();
        life.stop();
        disk.before = nullptr;
        moments.push_back(moment_of(disk, life));
        expect_right_at_each(moments, life);
    }
}

TEST(records_random, nor_does_a_kill_on_a_disk_that_fails_at_times)
{
    LogCapture log; // of each failure
    fs::remove_all("data");
    TestDisk            disk;
    std::mt19937        random(1);
    std::atomic<bool>   healthy{false};
    Life                life(disk, 1);
    std::vector<Moment> moments;
    disk.most_at_once   = 200;
    disk.loses_unsynced = true;
    disk.before         = [&](DiskCall call) {
        if (call != DiskCall::Read)
            moments.push_back(moment_of(disk, life));
        return !healthy && random() % 16 == 0 ? EIO : 0;
    };
    for (int i = 0; i < 200; ++i)
        life.change();
    healthy = true;
    life.stop();
    disk.before = nullptr;
    moments.push_back(moment_of(disk, life));
    expect_right_at_each(moments, life);
}
