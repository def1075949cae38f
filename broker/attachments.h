// attachments.h - everything that shows the running broker to people and programs: --events, --control, --top, SIGUSR1.
#ifndef TARN_BROKER_ATTACHMENTS_H
#define TARN_BROKER_ATTACHMENTS_H

#include "console/server.h"
#include "line_writer.h"
#include "options.h"
#include "view/top.h"

#include <memory>
#include <string>

typedef struct broker_t broker_t;

namespace tarn::broker {

class Loop;

class Attachments {
public:
    Attachments(Loop &loop, const Options &options);

    // Opens what was asked for, before there are threads. Returns what is wrong, or "".
    std::string open();

    void watch(broker_t *broker); // as soon as there is an instance: its events
    void serve(broker_t *broker); // once it serves: consoles, the view
    void end();                   // when it begins to end: serves no console any more and restores the terminal

private:
    void print_statistics();

    Loop                          &loop_;
    const Options                 &options_;
    std::unique_ptr<LineWriter>    events_;
    std::unique_ptr<ConsoleServer> consoles_;
    std::unique_ptr<Top>           top_;
};

} // namespace tarn::broker

#endif
