#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>
#include <vector>

#include "platform/Thread.h"

using kestor::SetCurrentThreadPriority;
using kestor::Thread;
using kestor::ThreadPriority;

namespace {

std::string CurrentThreadName() {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return name;
}

int CurrentThreadNice() {
    errno = 0;
    return getpriority(PRIO_PROCESS, gettid());
}

}  // namespace

TEST(Thread, RunsTheBodyWithItsNameAndJoins) {
    std::string seenName;
    std::atomic<bool> ran{false};
    Thread thread;
    EXPECT_FALSE(thread.Joinable());
    ASSERT_TRUE(thread.Start(
        [&] {
            seenName = CurrentThreadName();
            ran = true;
        },
        "kestor-recorder-thread"));
    EXPECT_TRUE(thread.Joinable());
    EXPECT_FALSE(thread.Start([] {})) << "one thread per object";
    thread.Join();
    EXPECT_FALSE(thread.Joinable());
    EXPECT_TRUE(ran);
    EXPECT_EQ(seenName, "kestor-recorder") << "cut to the 15 characters Linux keeps";

    EXPECT_FALSE(thread.Start(nullptr)) << "no body, no thread";
    std::atomic<bool> second{false};
    {
        Thread scoped;
        ASSERT_TRUE(scoped.Start([&] { second = true; }));
    }  // the destructor joins
    EXPECT_TRUE(second);
}

TEST(Thread, PriorityChangesAffectOnlyTheCallingThread) {
    const int mainNice = CurrentThreadNice();
    struct Outcome {
        ThreadPriority priority;
        bool accepted;
        int nice;
        int policy;
    };
    std::vector<Outcome> outcomes;
    Thread thread;
    ASSERT_TRUE(thread.Start([&] {
        for (ThreadPriority priority :
             {ThreadPriority::Lowest, ThreadPriority::TimeCritical, ThreadPriority::Normal,
              ThreadPriority::AboveNormal, ThreadPriority::Highest, ThreadPriority::BelowNormal,
              ThreadPriority::Idle}) {
            const bool accepted = SetCurrentThreadPriority(priority);
            outcomes.push_back({priority, accepted, CurrentThreadNice(), sched_getscheduler(0)});
        }
    }));
    thread.Join();
    ASSERT_EQ(outcomes.size(), 7u) << "refusals never stop the thread";
    for (const Outcome& o : outcomes) {
        if (!o.accepted) continue;  // unprivileged: best effort only
        switch (o.priority) {
            case ThreadPriority::TimeCritical:
                EXPECT_NE(o.policy, SCHED_OTHER);
                break;
            case ThreadPriority::Normal:
                EXPECT_EQ(o.policy, SCHED_OTHER) << "leaving real time";
                EXPECT_EQ(o.nice, 0);
                break;
            case ThreadPriority::Lowest:
                EXPECT_EQ(o.nice, 10);
                break;
            case ThreadPriority::Idle:
                EXPECT_EQ(o.nice, 19);
                break;
            default:
                EXPECT_EQ(o.policy, SCHED_OTHER);
        }
    }
    EXPECT_TRUE(outcomes.front().accepted) << "lowering priority is always allowed";
    EXPECT_TRUE(outcomes.back().accepted);
    EXPECT_EQ(CurrentThreadNice(), mainNice) << "the process and other threads are untouched";

    // A started thread takes the priority it was given before its body runs.
    int bodyNice = -100;
    ASSERT_TRUE(thread.Start([&] { bodyNice = CurrentThreadNice(); }, "low", ThreadPriority::Idle));
    thread.Join();
    EXPECT_EQ(bodyNice, 19);
}

TEST(Thread, JoiningFromInsideTheThreadLetsItGo) {
    Thread thread;
    std::promise<void> joined;
    std::future<void> done = joined.get_future();
    ASSERT_TRUE(thread.Start([&] {
        thread.Join();  // e.g. a playback thread that closes its own sequence
        joined.set_value();
    }));
    done.wait();
    EXPECT_FALSE(thread.Joinable());
    thread.Join();  // harmless
}
