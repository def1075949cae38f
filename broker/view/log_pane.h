// log_pane.h - standard output and standard error while the screen belongs to the view: what the program and the
// library write there is read by a thread, which never waits for anybody, and its last lines are kept to be shown.
#ifndef TARN_BROKER_VIEW_LOG_PANE_H
#define TARN_BROKER_VIEW_LOG_PANE_H

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tarn::broker {

class LogPane {
public:
    static constexpr size_t kLines     = 200;
    static constexpr size_t kLineBytes = 1024;

    LogPane();  // takes over those of the two that are terminals
    ~LogPane(); // gives them back
    LogPane(const LogPane &)            = delete;
    LogPane &operator=(const LogPane &) = delete;

    std::vector<std::string> last(size_t count); // oldest first

private:
    struct Taken {
        int fd, saved;
    };
    void read_all(int fd);
    void keep(std::string &&line);

    std::vector<Taken>      taken_;
    std::mutex              mutex_;
    std::deque<std::string> lines_; // under mutex_
    std::thread             thread_;
};

} // namespace tarn::broker

#endif
