// Prints what clients do, until Enter is pressed. A callback holds up every client while it runs, so it only puts the
// event into a queue; a thread of the host takes its time with them.
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <tarn_sdk_mqtt_broker.hpp>
#include <thread>

namespace {

// Clients can be faster than the worker: what does not fit is dropped, and told.
class Queue {
public:
    void put(std::string_view text)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (texts_.size() < 1000)
            texts_.emplace_back(text);
        else
            ++dropped_;
        changed_.notify_one();
    }
    void close()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        changed_.notify_one();
    }
    // False when there will be no more.
    bool take(std::string &text)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return closed_ || !texts_.empty(); });
        if (texts_.empty())
            return false;
        text = std::move(texts_.front());
        texts_.pop_front();
        return true;
    }
    unsigned dropped() const { return dropped_; }

private:
    std::mutex              mutex_;
    std::condition_variable changed_;
    std::deque<std::string> texts_;
    unsigned                dropped_ = 0;
    bool                    closed_  = false;
};

} // namespace

int main()
{
    Queue       queue;
    std::thread worker([&queue] {
        for (std::string text; queue.take(text);)
            std::printf("%s\n", text.c_str());
    });
    {
        tarn_sdk::Broker broker;
        broker.on_event([&queue](tarn_sdk::Event event, std::string_view text) {
            static const char *const names[] = {"connected",  "disconnected", "published",
                                                "subscribed", "unsubscribed", "will"};
            queue.put(std::string(names[static_cast<unsigned>(event)]) + " " + std::string(text));
        });
        if (!failed(broker.init()) && !failed(broker.start())) {
            std::puts("Serving, press Enter to end");
            std::getchar();
        }
    } // no event comes after this
    queue.close();
    worker.join();
    std::printf("%u events dropped\n", queue.dropped());
}
