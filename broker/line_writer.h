// line_writer.h - lines for a reader who may be slow: write() puts a line into a bounded queue and returns, a thread of
// its own writes. Lines that find no room are lost; a line that counts them stands in their place.
#ifndef TARN_BROKER_LINE_WRITER_H
#define TARN_BROKER_LINE_WRITER_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace tarn::broker {

class LineWriter {
public:
    using TellLost                       = std::string (*)(uint64_t count);
    static constexpr size_t kCapacity    = 8192; // lines
    static constexpr int    kEndLimit_ms = 1000; // that the end waits for the reader

    // Takes the descriptor over.
    LineWriter(int fd, TellLost tell_lost);
    ~LineWriter(); // writes what waits, as far as that is possible in time
    LineWriter(const LineWriter &)            = delete;
    LineWriter &operator=(const LineWriter &) = delete;

    void write(std::string line); // without its newline; from any thread, never waits for the reader

private:
    void        run();
    std::string take();                       // whole lines for one write, empty at the end
    bool        put(const std::string &text); // false when it could not be written
    bool        wait_for_room();              // false when the end does not wait any longer

    const int      fd_;
    const int      end_fd_; // readable from the end on
    const TellLost tell_lost_;

    std::mutex              mutex_;
    std::condition_variable filled_;
    std::deque<std::string> lines_;         // under mutex_
    uint64_t                lost_  = 0;     // since the last line that told; under mutex_
    bool                    ended_ = false; // under mutex_

    int64_t     give_up_at_ms_ = 0;     // the thread's own, steady clock; 0 = the end has not come
    bool        torn_          = false; // the thread's own: the last line was written in part
    std::thread thread_;
};

// Descriptors for a LineWriter, -1 with errno. They do not block where the kernel can help it; what is shared with
// other programs, as standard output is, keeps its mode.
int open_for_lines(int shared_fd);
int open_for_lines(const char *path); // appends; a new file gets mode 0600

} // namespace tarn::broker

#endif
