// tarn-broker - the library as a program: a host of its own, on the installed headers alone.
//
// The library's log goes to standard output, what this program has to say itself to standard error.
#include "console/client.h"
#include "options.h"
#include "passwd.h"
#include "serve.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string_view>

#include <tarn_sdk_mqtt_broker.h>

using namespace tarn::broker;

namespace {

int run(int argc, char **argv)
{
    const std::string_view first = argc > 1 ? argv[1] : "";
    if (first == "passwd")
        return passwd_command(argc - 1, argv + 1);
    if (first == "ctl")
        return run_console(argc - 1, argv + 1);

    const CommandLine line = read_command_line(argc, argv);
    if (!line.error.empty()) {
        fprintf(stderr, "tarn-broker: %s\nTry 'tarn-broker --help'.\n", line.error.c_str());
        return kBadOption;
    }
    switch (line.wish) {
    case Wish::Help:
        fputs(help_text().c_str(), stdout);
        return kEnded;
    case Wish::Version:
        printf("tarn-broker %s\n", tarn_sdk_mqtt_broker_version());
        return kEnded;
    case Wish::Serve:
        break;
    }
    return serve(line.options);
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0); // log lines appear as they are written, also in a pipe
    signal(SIGPIPE, SIG_IGN);            // the reader of the log may go; the broker stays
    try {
        return run(argc, argv);
    } catch (const std::exception &) {
        fputs("tarn-broker: out of memory\n", stderr);
        return kCannotServe;
    }
}
