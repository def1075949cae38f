// turnstile.h - lets some threads at a time through, in the order in which they came.
#ifndef TARN_BROKER_ACCESS_TURNSTILE_H
#define TARN_BROKER_ACCESS_TURNSTILE_H

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tarn::broker {

class Turnstile {
public:
    explicit Turnstile(uint64_t width) : width_(width) {}

    class Pass { // inside while it lives
    public:
        explicit Pass(Turnstile &turnstile) : turnstile_(turnstile) { turnstile_.enter(); }
        ~Pass() { turnstile_.leave(); }
        Pass(const Pass &)            = delete;
        Pass &operator=(const Pass &) = delete;

    private:
        Turnstile &turnstile_;
    };

    uint64_t came() // so far, those inside and waiting included
    {
        const std::lock_guard lock(mutex_);
        return next_;
    }

private:
    void enter()
    {
        std::unique_lock lock(mutex_);
        const uint64_t   number = next_++;
        moved_.wait(lock, [&] { return number < left_ + width_; });
    }
    void leave()
    {
        {
            const std::lock_guard lock(mutex_);
            ++left_;
        }
        moved_.notify_all();
    }

    const uint64_t          width_;
    std::mutex              mutex_;
    std::condition_variable moved_;
    uint64_t                next_ = 0; // who comes next; under mutex_
    uint64_t                left_ = 0; // how many are through; under mutex_
};

} // namespace tarn::broker

#endif
