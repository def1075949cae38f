// lane.cpp - the lane threads and what waits for them.
//
// A connection has one turn at a time, a packet or its end. Turns wait in two lines: one for the first turn of a
// connection, which is its CONNECT as a rule, and one for all others. Both are served in turn, and neither gets all
// threads, so that a new client does not wait for the files of two hundred others, nor they for slow logins.
//
// One thread takes what waits for as long as its turns are short, because waking another costs more than such a turn. The
// next is roused when a turn is not over within kPatience, by an I/O thread, which looks as long as turns wait. Where the
// last turn was longer, as with slow logins, each turn that comes rouses a thread.
//
// Turns of one group are taken one after another, in the order they came, whichever line they are for: the second waits
// with its group and joins its line when the first is done.
#include "lane.h"

#include "../base/clock.h"
#include "../base/thread.h"

#include <algorithm>
#include <ctime>

namespace tarn::net {
namespace {

constexpr int      kLanes   = 4;
constexpr int      kPerLine = kLanes - 1; // threads that serve one line at a time
constexpr uint32_t kGroups  = 1024;

constexpr int      kPatience_ms = 1;
constexpr uint64_t kPatience_us = uint64_t{kPatience_ms} * 1000;

enum Line : uint8_t { kFirstTurns, kOtherTurns, kLines };

constinit Mutex g_lane_mutex{};
pthread_cond_t  g_work_came = PTHREAD_COND_INITIALIZER; // with g_lane_mutex

// Rounds look without the mutex whether one is aside, or would wait for lanes that begin and end their turns.
struct Group {
    std::atomic<bool>     is_served{false}; // one of its turns is in a line or under way; changes under g_lane_mutex
    std::atomic<uint32_t> given{0};         // turns that a round has given, and not handed over yet
    SlotQueue waiting     GUARDED_BY(g_lane_mutex);
};

constinit SlotQueue             g_lines[kLines] GUARDED_BY(g_lane_mutex){};
constinit int                   g_serving[kLines] GUARDED_BY(g_lane_mutex){}; // threads
constinit int g_turns           GUARDED_BY(g_lane_mutex) = 0;                 // in the lines or under way
constinit int g_asleep          GUARDED_BY(g_lane_mutex) = 0;                 // threads that wait for work
constinit bool g_turns_are_long GUARDED_BY(g_lane_mutex) = false;             // the last that ended was
constinit std::atomic<int>      g_waiting{0};                                 // turns in the lines
constinit std::atomic<int>      g_roused{0};   // threads that were told of one, and have not looked yet
constinit std::atomic<uint64_t> g_moved_us{0}; // when one was taken, or a thread roused
constinit uint8_t g_next_line   GUARDED_BY(g_lane_mutex) = kFirstTurns;
constinit Group                 g_groups[kGroups]{};
constinit SlotQueue g_pauses    GUARDED_BY(g_lane_mutex){}; // all are equally long: due in this order
constinit pthread_t             g_lanes[kLanes] GUARDED_BY(g_lane_mutex){};
constinit std::atomic<int>      g_lane_count{0}; // changes under g_lane_mutex

constinit Mutex                 g_listed_mutex{};
constinit SlotQueue g_listed    GUARDED_BY(g_listed_mutex){};
constinit std::atomic<uint32_t> g_listed_count{0};

constinit thread_local bool      t_on_lane = false;
constinit thread_local SlotQueue t_given; // by this I/O thread in its round

Errand &errand_of(uint32_t handle)
{
    return side_of(handle).errand;
}

void release_pins(SlotQueue &queue)
{
    while (!queue.empty()) {
        const uint32_t handle = queue.pop();
        const SlotPin  pin({handle, errand_of(handle).generation}, SlotPin::Counted);
    }
}

// ---- lines and groups

void *lane_thread(void *start) noexcept;

bool start_lane(uint32_t start) REQUIRES(g_lane_mutex)
{
    void *const arg = reinterpret_cast<void *>(uintptr_t{start});
    if (start_thread(&g_lanes[g_lane_count], "tarn-lane", lane_thread, arg) != 0)
        return false;
    ++g_lane_count;
    return true;
}

void enter_line(uint32_t handle) REQUIRES(g_lane_mutex)
{
    g_lines[errand_of(handle).line].push(handle);
    ++g_turns;
    if (g_waiting++ == 0)
        g_moved_us = mono_us();
}

bool may_take_from(int line) REQUIRES(g_lane_mutex)
{
    return !g_lines[line].empty() && g_serving[line] < kPerLine;
}

// A thread sleeps that could take a turn.
bool can_rouse() REQUIRES(g_lane_mutex)
{
    return g_asleep > g_roused && (may_take_from(kFirstTurns) || may_take_from(kOtherTurns));
}

// True: a thread is to be signalled, best when the mutex was let go.
bool rouse_one() REQUIRES(g_lane_mutex)
{
    if (!can_rouse())
        return false;
    ++g_roused;
    g_moved_us = mono_us();
    return true;
}

// For a turn that has come: true likewise.
bool rouse_for_turn() REQUIRES(g_lane_mutex)
{
    const bool nobody_is_awake = g_asleep == g_lane_count && g_roused == 0;
    return (nobody_is_awake || g_turns_are_long) && rouse_one();
}

void enter_group(uint32_t handle) REQUIRES(g_lane_mutex)
{
    const uint32_t number = errand_of(handle).group;
    Group         &group  = g_groups[number % kGroups];
    if (number != 0 && group.is_served)
        return group.waiting.push(handle);
    if (number != 0)
        group.is_served = true;
    enter_line(handle);
}

void leave_group(uint32_t number) REQUIRES(g_lane_mutex)
{
    Group &group = g_groups[number % kGroups];
    if (number == 0)
        return;
    if (group.waiting.empty())
        group.is_served = false;
    else
        enter_line(group.waiting.pop());
}

// Several may end at once, and no I/O thread looks how long they take.
void end_pauses(uint64_t now_us) REQUIRES(g_lane_mutex)
{
    while (!g_pauses.empty() && errand_of(g_pauses.front()).due_us <= now_us) {
        enter_group(g_pauses.pop());
        if (rouse_one())
            pthread_cond_signal(&g_work_came);
    }
}

// ---- a lane

struct Turn {
    uint32_t handle;
    Errand   errand; // a copy: the connection may be in the next queue before this turn is done
    uint64_t began_us;
    bool     is_under_way;
};

bool pick(Turn &turn) REQUIRES(g_lane_mutex)
{
    for (int tried = 0; tried < kLines; ++tried) {
        const uint8_t line = g_next_line;
        g_next_line        = static_cast<uint8_t>((line + 1) % kLines);
        if (!may_take_from(line))
            continue;
        turn.handle = g_lines[line].pop();
        turn.errand = errand_of(turn.handle);
        ++g_serving[line];
        --g_waiting;
        turn.began_us     = mono_us();
        turn.is_under_way = true;
        g_moved_us        = turn.began_us;
        return true;
    }
    return false;
}

// Until work comes or the first pause is over. The clock may stand still in tests, so that a wait which was long enough
// ends the pause by itself.
void wait_for_work() REQUIRES(g_lane_mutex)
{
    ++g_asleep;
    if (g_pauses.empty()) {
        pthread_cond_wait(&g_work_came, &g_lane_mutex.raw);
    } else {
        const uint64_t due_us = errand_of(g_pauses.front()).due_us;
        const timespec until{static_cast<time_t>(due_us / 1000000), static_cast<long>(due_us % 1000000) * 1000};
        if (pthread_cond_clockwait(&g_work_came, &g_lane_mutex.raw, CLOCK_MONOTONIC, &until) != 0)
            end_pauses(due_us);
    }
    --g_asleep;
    g_roused -= g_roused > 0;
}

void note_done(Turn &turn) REQUIRES(g_lane_mutex)
{
    if (!std::exchange(turn.is_under_way, false))
        return;
    --g_serving[turn.errand.line];
    --g_turns;
    g_turns_are_long = elapsed(mono_us(), turn.began_us) >= kPatience_us;
}

// The next, when this one is done. False: the layer goes down, and the queues have been emptied, or will be.
bool take_turn(Turn &turn, uint32_t start)
{
    ScopedLock lock(g_lane_mutex);
    if (layer_runs(start))
        note_done(turn);
    while (layer_runs(start)) {
        if (!g_pauses.empty())
            end_pauses(mono_us());
        if (pick(turn)) {
            const bool leaves_pauses = !g_pauses.empty() && g_asleep > 0; // to a thread that is to wait for their end
            if ((g_turns_are_long && rouse_one()) || leaves_pauses)
                pthread_cond_signal(&g_work_came);
            return true;
        }
        wait_for_work();
    }
    return false;
}

// False when the connection is no longer this thread's.
bool serve_work(const SlotPin &pin, const Errand &errand, const EventSink &sink, uint32_t start)
{
    switch (errand.work) {
    case Work::Packet:
        return hand_up_first(pin, sink, start);
    case Work::End:
        hang_up(pin, sink);
        break;
    case Work::Finish:
        errand.finish.call(pin.connection(), errand.finish.word);
        break;
    }
    return pin.is_current();
}

void let_next_of_group(const Turn &turn, uint32_t start)
{
    ScopedLock lock(g_lane_mutex);
    if (layer_runs(start))
        leave_group(turn.errand.group);
}

// The hooks are around the turn, so that what it queued for clients leaves at its end, by this thread, and behind
// end_turn(): the client's next packet is not to be overtaken by that of another client who heard of its answer. Nor
// does that packet find the group served still, and have to go aside for it.
void serve(const Turn &turn, uint32_t start)
{
    const SlotPin pin({turn.handle, turn.errand.generation}, SlotPin::Counted);
    if (!pin.is_current())
        return let_next_of_group(turn, start);
    const EventSink sink = event_sink();
    const LateClose late(pin.connection());
    call_round_begin();
    if (serve_work(pin, turn.errand, sink, start))
        end_turn(pin, sink);
    let_next_of_group(turn, start);
    if (has_listed())
        wake_io_thread();
    call_round_end();
}

void *lane_thread(void *arg) noexcept
{
    t_on_lane        = true;
    const auto start = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    for (Turn turn{}; take_turn(turn, start);)
        serve(turn, start);
    return nullptr;
}

// ---- giving work to the lanes

// As many as there are turns to take, and one that waits for the end of pauses; or as can be had.
void start_lanes(uint32_t start) REQUIRES(g_lane_mutex)
{
    const int wanted = std::min(g_turns + !g_pauses.empty(), kLanes);
    while (g_lane_count < wanted && start_lane(start)) {}
}

bool has_lane(uint32_t start) EXCLUDES(g_lane_mutex)
{
    if (g_lane_count > 0)
        return true;
    ScopedLock lock(g_lane_mutex);
    return !layer_runs(start) || g_lane_count > 0 || start_lane(start);
}

// False when there is no thread to take it. True also when the connection was closed: `errand` is not kept then.
bool take_aside(const SlotPin &pin, const Errand &errand, uint32_t start, bool &is_taken)
{
    if (!has_lane(start))
        return false;
    is_taken = step_aside(pin, Server::Lane);
    if (is_taken)
        errand_of(pin.handle()) = errand; // this thread's until the connection is in a queue
    return true;
}

} // namespace

bool on_lane() noexcept
{
    return t_on_lane;
}

bool is_aside(uint32_t group) noexcept
{
    const Group &those = g_groups[group % kGroups];
    return group != 0 && (those.given > 0 || those.is_served); // in this order: see hand_over_to_lanes()
}

bool give_to_lane(const SlotPin &pin, Work work, uint32_t group, uint32_t start) noexcept
{
    SlotSide  &side   = side_of(pin.handle());
    const Line line   = work == Work::Packet && !side.was_aside ? kFirstTurns : kOtherTurns;
    side.was_aside    = 1;
    Errand errand     = {};
    errand.generation = pin.connection().generation;
    errand.group      = group;
    errand.work       = work;
    errand.line       = line;
    bool is_taken     = false;
    if (!take_aside(pin, errand, start, is_taken))
        return false;
    if (!is_taken)
        return true;
    t_given.push(pin.handle());
    ++g_groups[group % kGroups].given;
    return true;
}

bool pause_on_lane(const SlotPin &pin, const Finish &finish, uint32_t start) noexcept
{
    Errand errand     = {};
    errand.generation = pin.connection().generation;
    errand.work       = Work::Finish;
    errand.line       = kOtherTurns;
    errand.due_us     = mono_us() + uint64_t{kClosePause_ms} * 1000;
    errand.finish     = finish;
    bool is_taken     = false;
    if (!take_aside(pin, errand, start, is_taken))
        return false;
    if (!is_taken)
        return true;
    SlotQueue  left_out;
    ScopedLock lock(g_lane_mutex);
    if (layer_runs(start)) {
        g_pauses.push(pin.handle());
        start_lanes(start);
        pthread_cond_signal(&g_work_came);
    } else { // the layer goes down, and closes the connection
        left_out.push(pin.handle());
        release_pins(left_out);
    }
    return true;
}

void hand_over_to_lanes(uint32_t start) noexcept
{
    if (t_given.empty())
        return;
    int roused = 0;
    {
        ScopedLock lock(g_lane_mutex);
        if (!layer_runs(start))
            return release_pins(t_given);
        while (!t_given.empty()) {
            const uint32_t handle = t_given.pop();
            Group         &group  = g_groups[errand_of(handle).group % kGroups];
            enter_group(handle); // first, so that it is aside all the time
            if (group.given > 0)
                --group.given;
            roused += rouse_for_turn();
        }
        start_lanes(start);
    }
    for (; roused > 0; --roused)
        pthread_cond_signal(&g_work_came);
}

// Each thread that was roused takes one, as soon as there is a processor for it.
int patience_ms(int timeout_ms) noexcept
{
    if (g_waiting <= g_roused)
        return timeout_ms;
    ScopedLock lock(g_lane_mutex);
    return can_rouse() ? std::min(timeout_ms, kPatience_ms) : timeout_ms;
}

void hurry_lanes(bool has_waited) noexcept
{
    if (g_waiting == 0 || g_roused > 0 || (!has_waited && elapsed(mono_us(), g_moved_us) < kPatience_us))
        return;
    bool roused;
    {
        ScopedLock lock(g_lane_mutex);
        roused = rouse_one();
    }
    if (roused)
        pthread_cond_signal(&g_work_came);
}

// ---- the list of the rounds

void list_for_round(Connection connection) noexcept
{
    ScopedLock lock(g_listed_mutex);
    errand_of(connection.handle).generation = connection.generation;
    g_listed.push(connection.handle);
    ++g_listed_count;
}

uint32_t listed_count() noexcept
{
    return g_listed_count;
}

bool has_listed() noexcept
{
    return g_listed_count != 0;
}

SlotQueue take_listed() noexcept
{
    if (!has_listed())
        return {};
    ScopedLock      lock(g_listed_mutex);
    const SlotQueue taken = g_listed;
    g_listed              = {};
    g_listed_count        = 0;
    return taken;
}

// ---- down

void stop_lanes() noexcept
{
    pthread_t lanes[kLanes];
    int       count;
    {
        ScopedLock lock(g_lane_mutex);
        count        = g_lane_count;
        g_lane_count = 0;
        std::copy_n(g_lanes, count, lanes);
        pthread_cond_broadcast(&g_work_came);
    }
    for (int i = 0; i < count; ++i)
        join_or_detach(lanes[i]);
}

void empty_queues() noexcept
{
    SlotQueue listed = take_listed();
    release_pins(listed);
    ScopedLock lock(g_lane_mutex);
    for (SlotQueue &line : g_lines)
        release_pins(line);
    for (Group &group : g_groups) {
        release_pins(group.waiting);
        group.is_served = false;
        group.given     = 0;
    }
    release_pins(g_pauses);
    std::fill_n(g_serving, int{kLines}, 0);
    g_turns   = 0;
    g_waiting = 0;
    g_roused  = 0;
}

} // namespace tarn::net
