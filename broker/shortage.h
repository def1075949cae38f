// shortage.h - what becomes of work for which there is no memory: it is left out and counted, and the program goes on.
//
// The library calls this program through C, where no exception may pass, and ends the process with one that does. So
// every function it calls is a CCallback, and everything of the main loop runs within unless_short().
#ifndef TARN_BROKER_SHORTAGE_H
#define TARN_BROKER_SHORTAGE_H

#include <cstdint>
#include <exception>

namespace tarn::broker {

void     count_shortage() noexcept; // from any thread
uint64_t take_shortages() noexcept; // since the last call

// False when it was not done to its end.
template <class Act> bool unless_short(const Act &act) noexcept
{
    try {
        act();
        return true;
    } catch (const std::exception &) {
        count_shortage();
        return false;
    }
}

// A function as the library may call it. Where it finds no memory the other one, which needs none, gives the result:
// `&CCallback<on_auth, refuse_login>::call`.
template <auto Act, auto Otherwise> struct CCallback;

template <class Result, class... Arguments, Result (*Act)(Arguments...), Result (*Otherwise)(Arguments...)>
struct CCallback<Act, Otherwise> {
    static Result call(Arguments... arguments) noexcept
    {
        try {
            return Act(arguments...);
        } catch (const std::exception &) {
            count_shortage();
            return Otherwise(arguments...);
        }
    }
};

} // namespace tarn::broker

#endif
