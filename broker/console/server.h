// server.h - the control socket: a Unix stream socket that only its owner may open, for several consoles at once.
//
// Everything happens on the main loop and nothing waits: a console that does not take its answer is asked for no
// further command, so what is kept for it is one line and one answer; one that takes nothing for a minute is closed.
#ifndef TARN_BROKER_CONSOLE_SERVER_H
#define TARN_BROKER_CONSOLE_SERVER_H

#include "../loop.h"

#include <cstdint>
#include <ctime>
#include <list>
#include <string>
#include <sys/types.h>

typedef struct broker_t broker_t;

namespace tarn::broker {

class ConsoleServer {
public:
    static constexpr size_t kConsolesMax = 16;
    static constexpr size_t kLineMax     = 16384; // bytes of a command
    static constexpr int    kPatience_s  = 60;

    explicit ConsoleServer(Loop &loop) : loop_(loop) {}
    ~ConsoleServer(); // closes the consoles, removes the socket
    ConsoleServer(const ConsoleServer &)            = delete;
    ConsoleServer &operator=(const ConsoleServer &) = delete;

    // Opens the socket at path; one that nobody listens to any more is replaced. Returns what is wrong, or "". Not
    // while other threads make files: the mask of the process is changed for a moment.
    std::string open(const std::string &path);

    // From now on commands are answered; before that they wait.
    void serve(broker_t *broker);

private:
    struct Console {
        int         fd;
        std::string line;          // what came and is not answered yet
        std::string answer;        // what has not been sent yet
        int64_t     moved_at_s;    // monotonic: when it last took bytes of an answer
        bool        ended = false; // sends no more commands
    };
    using Place = std::list<Console>::iterator;
    using Act   = void (ConsoleServer::*)(Place console);

    void      accept_console();
    Loop::Act guarded(Act act, Place console); // a console for which there is no memory is closed
    void      receive(Place console);
    void      turn(Place console);
    bool      answer_next(Console &console); // false when no whole line has come
    bool      send_answer(Console &console); // false when it is gone
    void      close_console(Place console);
    void      close_stalled();

    Loop              &loop_;
    broker_t          *broker_    = nullptr;
    int                listen_fd_ = -1;
    std::string        path_;
    dev_t              device_ = 0; // of the socket in the file system, to remove no other
    ino_t              inode_  = 0;
    std::list<Console> consoles_;
};

} // namespace tarn::broker

#endif
