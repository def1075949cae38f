// commands.h - what the control socket can be asked, one line each, and the answers: any number of lines, then "ok" or
// "error: ..." alone on the last one.
#ifndef TARN_BROKER_CONSOLE_COMMANDS_H
#define TARN_BROKER_CONSOLE_COMMANDS_H

#include <string>
#include <string_view>

typedef struct broker_t broker_t;

namespace tarn::broker {

std::string answer_command(broker_t *broker, std::string_view line); // ends with a newline

} // namespace tarn::broker

#endif
