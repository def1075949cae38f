#include "line_writer.h"

#include "shortage.h"
#include "thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tarn::broker {
namespace {

constexpr int kLastWrite_ms = 500; // that the end waits for a write that hangs, behind kEndLimit_ms

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Counts nothing, unlike unless_short(): there may be another way.
template <class Act> bool has_memory_for(const Act &act) noexcept
{
    try {
        act();
        return true;
    } catch (const std::exception &) {
        return false;
    }
}

// A socket is told for each write that it is not to wait; everything else has its mode.
ssize_t write_some(int fd, const char *bytes, size_t count)
{
    const ssize_t sent = send(fd, bytes, count, MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 && errno == ENOTSOCK ? ::write(fd, bytes, count) : sent;
}

} // namespace

// Shared by the writer and its thread, so that a thread that hangs in a write may outlive the writer.
struct LineWriter::Queue {
    Queue(int its_fd, TellLost its_tell_lost, Descriptor its_descriptor)
        : fd(its_fd), descriptor(its_descriptor), end_fd(eventfd(0, EFD_CLOEXEC)), tell_lost(its_tell_lost)
    {
        batch.reserve(PIPE_BUF);
        reserve.reserve(PIPE_BUF);
    }
    ~Queue()
    {
        close(end_fd);
        if (descriptor == Owned)
            close(fd);
    }
    Queue(const Queue &)            = delete;
    Queue &operator=(const Queue &) = delete;

    bool has_room_for(std::string_view line) const;    // under mutex, as the next three
    bool add(std::string_view line) noexcept;          // false when there is no memory
    bool add_to_lines(std::string_view line) noexcept; // likewise
    bool add_lost() noexcept;                          // likewise; true when nothing was lost
    void run();
    bool take();                     // whole lines into batch; false at the end
    bool put_batch();                // false when not all of it could be written
    bool put(std::string_view text); // likewise
    bool wait_for_room();            // false when the end does not wait any longer

    const int        fd;
    const Descriptor descriptor;
    const int        end_fd; // readable from the end on
    const TellLost   tell_lost;

    std::mutex              mutex;
    std::condition_variable filled;
    std::condition_variable finished;      // the thread has ended
    std::deque<std::string> lines;         // with their newlines; under mutex, as all up to `done`
    size_t                  bytes = 0;     // of them all
    std::string             reserve;       // lines behind all those, for which there was no memory; at most PIPE_BUF
    uint64_t                lost  = 0;     // since the last line that told
    bool                    ended = false; // no more lines come
    bool                    done  = false; // the thread's last word

    std::string batch;                 // the thread's own, as the next two
    int64_t     give_up_at_ms = 0;     // steady clock; 0 = the end has not come
    bool        torn          = false; // the last line was written in part
};

LineWriter::LineWriter(int fd, TellLost tell_lost, Descriptor descriptor)
    : queue_(std::make_shared<Queue>(fd, tell_lost, descriptor))
{
    start_without_signals([queue = queue_] { queue->run(); }).detach();
}

LineWriter::~LineWriter()
{
    std::unique_lock lock(queue_->mutex);
    queue_->ended = true;
    (void)queue_->add_lost();
    queue_->filled.notify_one();
    eventfd_write(queue_->end_fd, 1);
    const auto limit = std::chrono::milliseconds(kEndLimit_ms + kLastWrite_ms);
    queue_->finished.wait_for(lock, limit, [this] { return queue_->done; });
}

void LineWriter::write(std::string_view line) noexcept
{
    {
        const std::lock_guard lock(queue_->mutex);
        if (!queue_->has_room_for(line)) {
            ++queue_->lost;
            return;
        }
        if (!queue_->add_lost() || !queue_->add(line)) {
            count_shortage();
            ++queue_->lost;
            return;
        }
    }
    queue_->filled.notify_one();
}

void LineWriter::lose() noexcept
{
    const std::lock_guard lock(queue_->mutex);
    ++queue_->lost;
}

bool LineWriter::Queue::has_room_for(std::string_view line) const
{
    return lines.size() < kCapacity && bytes + line.size() <= kCapacityB;
}

// What finds no memory goes into the reserve, and so does all that follows until the reserve has been written.
bool LineWriter::Queue::add(std::string_view line) noexcept
{
    if (reserve.empty() && add_to_lines(line))
        return true;
    if (reserve.size() + line.size() + 1 > PIPE_BUF)
        return false;
    reserve.append(line).append(1, '\n');
    return true;
}

bool LineWriter::Queue::add_to_lines(std::string_view line) noexcept
{
    return has_memory_for([&] {
        std::string text;
        text.reserve(line.size() + 1);
        text.append(line).append(1, '\n');
        lines.push_back(std::move(text));
        bytes += line.size() + 1;
    });
}

bool LineWriter::Queue::add_lost() noexcept
{
    if (lost == 0)
        return true;
    std::string line;
    if (!has_memory_for([&] { line = tell_lost(lost); }) || !add(line))
        return false;
    lost = 0;
    return true;
}

void LineWriter::Queue::run()
{
    while (take()) {
        if (put_batch())
            continue;
        const std::lock_guard lock(mutex);
        lost += static_cast<uint64_t>(std::count(batch.begin(), batch.end(), '\n'));
    }
    const std::lock_guard lock(mutex);
    done = true;
    finished.notify_one();
}

// No more than a pipe takes whole, so that lines of other writers to the same pipe stay whole too. Needs no memory.
bool LineWriter::Queue::take()
{
    std::unique_lock lock(mutex);
    filled.wait(lock, [this] { return ended || !lines.empty() || !reserve.empty(); });
    batch.clear();
    if (lines.empty())
        batch.swap(reserve);
    while (!lines.empty() && (batch.empty() || batch.size() + lines.front().size() <= PIPE_BUF)) {
        bytes -= lines.front().size();
        if (lines.front().size() > batch.capacity())
            batch = std::move(lines.front());
        else
            batch += lines.front();
        lines.pop_front();
    }
    return !batch.empty();
}

bool LineWriter::Queue::put_batch()
{
    return (!torn || put("\n")) && put(batch);
}

bool LineWriter::Queue::put(std::string_view text)
{
    size_t written = 0;
    while (written < text.size() && wait_for_room()) { // room for so much at least, also where a write would wait
        const ssize_t count = write_some(fd, text.data() + written, std::min<size_t>(text.size() - written, PIPE_BUF));
        if (count > 0)
            written += static_cast<size_t>(count);
        else if (errno != EAGAIN && errno != EINTR)
            break;
    }
    if (written > 0)
        torn = text[written - 1] != '\n';
    return written == text.size();
}

bool LineWriter::Queue::wait_for_room()
{
    while (give_up_at_ms == 0) {
        pollfd fds[] = {{fd, POLLOUT, 0}, {end_fd, POLLIN, 0}};
        poll(fds, 2, -1);
        if (fds[1].revents != 0)
            give_up_at_ms = now_ms() + kEndLimit_ms;
        else if (fds[0].revents != 0)
            return true;
    }
    pollfd    room    = {fd, POLLOUT, 0};
    const int left_ms = static_cast<int>(std::max<int64_t>(give_up_at_ms - now_ms(), 0));
    return poll(&room, 1, left_ms) > 0;
}

int open_for_lines(int shared_fd)
{
    struct stat file {};
    if (fstat(shared_fd, &file) == 0 && (S_ISFIFO(file.st_mode) || S_ISCHR(file.st_mode))) {
        const std::string name = "/proc/self/fd/" + std::to_string(shared_fd);
        if (const int own = open(name.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); own >= 0)
            return own;
    }
    return fcntl(shared_fd, F_DUPFD_CLOEXEC, 0);
}

int open_for_lines(const char *path)
{
    return open(path, O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
}

} // namespace tarn::broker
