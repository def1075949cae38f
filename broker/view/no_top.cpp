// no_top.cpp - stands for top.cpp where there is no ncurses.
#include "top.h"

namespace tarn::broker {

struct Top::State {};

std::string prepare_view()
{
    return "--top is missing in this tarn-broker, which was built without ncurses";
}

Top::Top(Loop & /*loop*/, broker_t * /*broker*/, int /*max_clients*/) {}

Top::~Top() = default;

} // namespace tarn::broker
