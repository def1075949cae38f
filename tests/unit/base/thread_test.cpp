#include "base/thread.h"

#include "support/faults.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>
#include <semaphore>
#include <string>
#include <thread>

using namespace tarn;
using namespace tarn::test;

namespace {

// What a thread finds out about itself.
struct Self {
    char      name[16] = "";
    size_t    stack    = 0;
    bool      ours     = false;
    sigset_t  mask{};
    pthread_t id     = 0;
    int       policy = -1;

    static void *look(void *self)
    {
        static_cast<Self *>(self)->look();
        return nullptr;
    }
    void look()
    {
        id = pthread_self();
        pthread_getname_np(id, name, sizeof name);
        pthread_attr_t attributes;
        pthread_getattr_np(id, &attributes);
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        ours   = on_library_thread();
        policy = sched_getscheduler(0);
    }
};

Self run(WakesUp wakes_up = WakesUp::ToPreempt)
{
    Self      self;
    pthread_t thread = 0;
    EXPECT_EQ(start_thread(&thread, "tarn-test", Self::look, &self, wakes_up), 0);
    join_or_detach(thread);
    EXPECT_NE(self.id, 0u);
    return self;
}

} // namespace

TEST(thread, has_its_name_and_a_stack_of_1_mib)
{
    const Self self = run();
    EXPECT_STREQ(self.name, "tarn-test");
    EXPECT_EQ(self.stack, 1024u * 1024u);
}

TEST(thread, preempts_nobody_if_it_is_to_wait)
{
    EXPECT_EQ(run().policy, SCHED_OTHER);
    EXPECT_EQ(run(WakesUp::ToWait).policy, SCHED_BATCH);
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

TEST(thread, does_not_wait_because_its_creator_does)
{
    Self       self;
    pthread_t  thread        = 0;
    const auto start_another = [](void *other) -> void * {
        pthread_t inner = 0;
        EXPECT_EQ(start_thread(&inner, "tarn-test", Self::look, other), 0);
        join_or_detach(inner);
        return nullptr;
    };
    ASSERT_EQ(start_thread(&thread, "tarn-waits", start_another, &self, WakesUp::ToWait), 0);
    join_or_detach(thread);
    EXPECT_EQ(self.policy, SCHED_OTHER);
}

TEST(thread, keeps_the_policy_that_the_host_chose)
{
    const sched_param none{};
    ASSERT_EQ(sched_setscheduler(0, SCHED_IDLE, &none), 0);
    EXPECT_EQ(run(WakesUp::ToWait).policy, SCHED_IDLE);
    EXPECT_EQ(run().policy, SCHED_IDLE);
}

TEST(thread, takes_no_signal_but_its_own_faults)
{
    const Self self = run();
    for (const int taken : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        EXPECT_EQ(sigismember(&self.mask, taken), 0) << taken;
    for (const int blocked : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGALRM, SIGCHLD, SIGUSR1, SIGUSR2, SIGQUIT, SIGRTMIN})
        EXPECT_EQ(sigismember(&self.mask, blocked), 1) << blocked;
}

TEST(thread, leaves_the_creators_signals_as_they_were)
{
    sigset_t before, after;
    sigemptyset(&before);
    sigaddset(&before, SIGUSR1);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    run();
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < 32; ++signal)
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    {
        const Fail fail(Call::ThreadCreate, 1, EAGAIN);
        pthread_t  thread = 0;
        EXPECT_NE(start_thread(&thread, "t", Self::look, nullptr), 0);
    }
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

TEST(thread, knows_that_it_is_the_librarys)
{
    EXPECT_FALSE(on_library_thread());
    EXPECT_TRUE(run().ours);
    EXPECT_FALSE(on_library_thread());
    bool elsewhere = true;
    std::thread([&] { elsewhere = on_library_thread(); }).join();
    EXPECT_FALSE(elsewhere);
}

TEST(thread, that_cannot_be_made_says_why)
{
    pthread_t thread = 0;
    for (const int reason : {EAGAIN, EPERM}) {
        const Fail fail(Call::ThreadCreate, 1, reason);
        EXPECT_EQ(start_thread(&thread, "t", Self::look, nullptr), reason);
    }
    const Fail fail(Call::Allocate);
    EXPECT_EQ(start_thread(&thread, "t", Self::look, nullptr), ENOMEM);
    EXPECT_EQ(fail.failed(), 1);
    EXPECT_EQ(thread, 0u);
}

TEST(join_or_detach, waits_for_the_end)
{
    static std::atomic<bool> ended{false};
    pthread_t                thread = 0;
    ASSERT_EQ(start_thread(
                  &thread, "t",
                  [](void *) -> void * {
                      std::this_thread::sleep_for(std::chrono::milliseconds(50));
                      ended = true;
                      return nullptr;
                  },
                  nullptr),
              0);
    join_or_detach(thread);
    EXPECT_TRUE(ended);
}

TEST(join_or_detach, of_itself_detaches)
{
    static std::binary_semaphore detached{0}, looked{0};
    pthread_t                    thread = 0;
    ASSERT_EQ(start_thread(
                  &thread, "t",
                  [](void *) -> void * {
                      join_or_detach(pthread_self());
                      detached.release();
                      looked.acquire();
                      return nullptr;
                  },
                  nullptr),
              0);
    detached.acquire();
    pthread_attr_t attributes;
    int            state = -1;
    ASSERT_EQ(pthread_getattr_np(thread, &attributes), 0);
    pthread_attr_getdetachstate(&attributes, &state);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(state, PTHREAD_CREATE_DETACHED);
    looked.release();
}
