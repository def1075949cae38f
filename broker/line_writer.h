// line_writer.h - lines for a reader who may be slow: write() puts a line into a bounded queue and returns, a thread of
// its own writes. Lines that find no room, or no memory, are lost; a line that counts them stands in their place. Without
// memory there is still room for one PIPE_BUF of lines.
#ifndef TARN_BROKER_LINE_WRITER_H
#define TARN_BROKER_LINE_WRITER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace tarn::broker {

class LineWriter {
public:
    using TellLost                       = std::string (*)(uint64_t count);
    static constexpr size_t kCapacity    = 8192;    // lines
    static constexpr size_t kCapacityB   = 8 << 20; // bytes of all lines that wait
    static constexpr int    kEndLimit_ms = 1000;    // that the end waits for the reader

    enum Descriptor {
        Owned,  // closed at the end
        Shared, // whatever is behind this number at the time of a write, such as standard output
    };

    LineWriter(int fd, TellLost tell_lost, Descriptor descriptor = Owned);
    // Writes what waits, as far as that is possible in time. A write that hangs even then is left to itself.
    ~LineWriter();
    LineWriter(const LineWriter &)            = delete;
    LineWriter &operator=(const LineWriter &) = delete;

    // Without its newline; from any thread, never waits for the reader, and no want of memory gets out.
    void write(std::string_view line) noexcept;
    void lose() noexcept; // counts a line that could not be made

private:
    struct Queue;
    const std::shared_ptr<Queue> queue_; // the thread's as well
};

// Descriptors for a LineWriter, -1 with errno. They do not block where the kernel can help it; what is shared with
// other programs, as standard output is, keeps its mode.
int open_for_lines(int shared_fd);
int open_for_lines(const char *path); // appends; a new file gets mode 0600

} // namespace tarn::broker

#endif
