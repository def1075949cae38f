// loop.h - what the main thread does while the library's threads serve: it sleeps until a signal comes, a descriptor
// can be read or an interval is over, and calls the function registered for it. One that finds no
// memory is cut short, and called again when its time comes again.
#ifndef TARN_BROKER_LOOP_H
#define TARN_BROKER_LOOP_H

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <poll.h>
#include <vector>

namespace tarn::broker {

class Loop {
public:
    using Act = std::function<void()>;

    Loop();
    ~Loop();
    Loop(const Loop &)            = delete;
    Loop &operator=(const Loop &) = delete;

    // The signal no longer interrupts anything: it waits, blocked, for run(), also when it comes before that. To be
    // called before other threads start, since they inherit what is blocked.
    void on_signal(int number, Act act);

    // Gives a signal its default action back.
    void release_signal(int number);

    // Calls act as long as the descriptor can be read, was closed by its peer, or failed.
    void on_readable(int fd, Act act);

    // Calls act as long as the descriptor takes bytes; a null act ends that.
    void on_writable(int fd, Act act);

    // No more calls for this descriptor; also from inside its own act. The caller closes it afterwards.
    void forget(int fd);

    void every(std::chrono::milliseconds period, Act act);

    // Returns after end().
    void run();
    void end() { ended_ = true; }

private:
    using Clock = std::chrono::steady_clock;
    struct Interval {
        std::chrono::milliseconds period;
        Clock::time_point         next;
        Act                       act;
    };

    using Acts = std::map<int, std::shared_ptr<Act>>; // shared, so that an act may forget itself while it runs

    static void         call(const Acts &acts, int fd);
    std::vector<pollfd> watched() const;
    void                take_signals();
    void                run_due_intervals();
    int                 wait_ms() const;

    int                   signal_fd_;
    sigset_t              signals_;
    bool                  ended_ = false;
    std::map<int, Act>    signal_acts_;
    Acts                  readers_;
    Acts                  writers_;
    std::vector<Interval> intervals_;
};

} // namespace tarn::broker

#endif
