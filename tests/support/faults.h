// faults.h - what tests can do to the system calls of the library: make the n-th one fail, or hold the clock.
#ifndef TARN_TESTS_FAULTS_H
#define TARN_TESTS_FAULTS_H

#include <cstdint>
#include <functional>

namespace tarn::test {

enum class Call {
    Allocate, // malloc, calloc, realloc, counted together on the calling thread
    ThreadCreate,
    Socket,
    Bind,
    Listen,
    Accept,
    EpollCreate,
    EpollCtl,
    EpollWait,
    FileOpen,
    FileSeek,
    FileWrite, // fwrite and fputs, to the console too
    FileFlush,
    FileSync,
    FileClose, // the file is closed all the same
    Rename,
    Unlink,
    Count_
};

// While it lives, the nth next call (1 = the next) and the `times - 1` after it fail with this errno value
// (pthread_create returns it). Allocations are counted on the constructing thread only, all others on every thread.
class Fail {
public:
    explicit Fail(Call call, int nth = 1, int error = 12 /* ENOMEM */, int times = 1);
    ~Fail();
    Fail(const Fail &)            = delete;
    Fail &operator=(const Fail &) = delete;
    int   failed() const; // calls that were made to fail so far

private:
    Call call_;
};

// While it lives, the process ends just before its nth next call of those from FileOpen to Unlink that change files, as
// if it were killed there: what is buffered is lost, nothing is cleaned up. For a child process.
class KillAt {
public:
    static constexpr int kStatus = 77; // what the child's parent sees

    explicit KillAt(int nth);
    ~KillAt();
    KillAt(const KillAt &)            = delete;
    KillAt &operator=(const KillAt &) = delete;
};

// While it lives, it runs before each call of those from FileOpen to Unlink that changes files, on the calling thread.
class OnFileCall {
public:
    explicit OnFileCall(std::function<void()> act);
    ~OnFileCall();
    OnFileCall(const OnFileCall &)            = delete;
    OnFileCall &operator=(const OnFileCall &) = delete;
};

// While it lives, files are not synced, only said to be: for tests that write very many.
class UnsyncedFiles {
public:
    UnsyncedFiles();
    ~UnsyncedFiles();
    UnsyncedFiles(const UnsyncedFiles &)            = delete;
    UnsyncedFiles &operator=(const UnsyncedFiles &) = delete;
};

// While it lives, all clocks stand still and move only by hand. Starts at wall 1,800,000,000 s and mono 1,000,000 ms.
class ManualClock {
public:
    static constexpr int64_t kTick_ms = 4; // of the clock that is read without asking the hardware

    ManualClock();
    ~ManualClock();
    void     advance_ms(int64_t ms);      // both clocks
    void     advance_wall_ms(int64_t ms); // the wall clock alone
    uint64_t mono_ms() const;
    int64_t  wall_s() const;
};

} // namespace tarn::test

#endif
