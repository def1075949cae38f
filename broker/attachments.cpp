#include "attachments.h"

#include "events.h"
#include "loop.h"
#include "query.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace tarn::broker {

Attachments::Attachments(Loop &loop, const Options &options) : loop_(loop), options_(options) {}

std::string Attachments::open()
{
    loop_.on_signal(SIGUSR1, [this] { print_statistics(); });
    const bool to_output = options_.events == "-";
    if (options_.top) {
        if (to_output)
            return "--top and --events - both want standard output; give --events a file";
        if (std::string fault = prepare_view(); !fault.empty())
            return fault;
    }
    if (!options_.events.empty()) {
        const int fd = to_output ? open_for_lines(STDOUT_FILENO) : open_for_lines(options_.events.c_str());
        if (fd < 0)
            return "--events " + options_.events + ": " +
                   (errno == ENXIO ? "nobody reads from it" : strerror(errno)); // a pipe with a name
        events_ = std::make_unique<LineWriter>(fd, tell_lost_events);
    }
    if (!options_.control.empty()) {
        consoles_ = std::make_unique<ConsoleServer>(loop_);
        if (const std::string fault = consoles_->open(options_.control); !fault.empty())
            return "--control " + options_.control + ": " + fault;
    }
    return "";
}

void Attachments::watch(broker_t *broker)
{
    if (events_)
        write_events(broker, *events_);
}

void Attachments::serve(broker_t *broker)
{
    if (consoles_)
        consoles_->serve(broker);
    if (options_.top)
        top_ = std::make_unique<Top>(loop_, broker, options_.max_clients);
}

void Attachments::end()
{
    top_.reset();
    consoles_.reset();
}

// Among the events where those go to standard output too.
void Attachments::print_statistics()
{
    if (options_.events == "-")
        events_->write(statistics_json());
    else
        puts(statistics_json().c_str());
}

} // namespace tarn::broker
