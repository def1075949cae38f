// client.h - `tarn-broker ctl PATH [COMMAND...]`: the other end of the control socket.
#ifndef TARN_BROKER_CONSOLE_CLIENT_H
#define TARN_BROKER_CONSOLE_CLIENT_H

namespace tarn::broker {

// With a command it prints the answer and ends; without one it reads commands from standard input. Returns the exit
// status: 0 all went well, 1 a command failed or the broker is not there, 2 bad usage. argv[0] is "ctl".
int run_console(int argc, char **argv);

} // namespace tarn::broker

#endif
