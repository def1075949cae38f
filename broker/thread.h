// thread.h - threads of the program that leave all signals to the main thread.
#ifndef TARN_BROKER_THREAD_H
#define TARN_BROKER_THREAD_H

#include <csignal>
#include <thread>
#include <utility>

namespace tarn::broker {

template <class Body> std::thread start_without_signals(Body body)
{
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(std::move(body));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

} // namespace tarn::broker

#endif
