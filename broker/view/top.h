// top.h - --top: the running broker to look at, in a terminal.
#ifndef TARN_BROKER_VIEW_TOP_H
#define TARN_BROKER_VIEW_TOP_H

#include <memory>
#include <string>

typedef struct broker_t broker_t;

namespace tarn::broker {

class Loop;

// Before there are threads. Returns why there can be no view, or "": no terminal, an unknown one, or no ncurses in
// here.
std::string prepare_view();

// Takes the terminal over, and what is written to it, until it is destroyed. `q`, and the terminal's end, end the loop.
class Top {
public:
    Top(Loop &loop, broker_t *broker, int max_clients);
    ~Top();
    Top(const Top &)            = delete;
    Top &operator=(const Top &) = delete;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace tarn::broker

#endif
