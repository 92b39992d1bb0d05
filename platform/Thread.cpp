#include "platform/Thread.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <memory>
#include <system_error>

namespace kestor {
namespace {

// Nice values for the priority levels: 0 is the default, negative values need privileges.
int NiceValue(ThreadPriority priority) {
    switch (priority) {
        case ThreadPriority::Idle:
            return 19;
        case ThreadPriority::Lowest:
            return 10;
        case ThreadPriority::BelowNormal:
            return 5;
        case ThreadPriority::Normal:
            return 0;
        case ThreadPriority::AboveNormal:
            return -5;
        case ThreadPriority::Highest:
            return -10;
        case ThreadPriority::TimeCritical:
            return -20;
    }
    return 0;
}

// On Linux the nice value belongs to the thread when addressed by its thread id.
bool SetThreadNice(int nice) {
    return setpriority(PRIO_PROCESS, gettid(), nice) == 0;
}

bool SetRealTime(bool enable) {
    sched_param parameter = {};
    int policy = SCHED_OTHER;
    if (enable) {
        policy = SCHED_FIFO;
        // Middle of the range: above ordinary real-time helpers, below kernel-critical ones.
        const int low = sched_get_priority_min(SCHED_FIFO);
        const int high = sched_get_priority_max(SCHED_FIFO);
        parameter.sched_priority = low + (high - low) / 2;
    }
    return pthread_setschedparam(pthread_self(), policy, &parameter) == 0;
}

}  // namespace

bool SetCurrentThreadPriority(ThreadPriority priority) {
    if (priority == ThreadPriority::TimeCritical) {
        if (SetRealTime(true)) return true;
        SetThreadNice(NiceValue(priority));
        return false;  // only an approximation of what was asked for
    }
    int policy = SCHED_OTHER;
    sched_param current = {};
    // Leaving real time first: nice values do not apply to real-time threads.
    if (pthread_getschedparam(pthread_self(), &policy, &current) == 0 && policy != SCHED_OTHER)
        SetRealTime(false);
    return SetThreadNice(NiceValue(priority));
}

void SetCurrentThreadName(const char* name) {
    if (!name) return;
    char shortName[16] = {};  // the kernel keeps 15 characters and the terminator
    std::strncpy(shortName, name, sizeof(shortName) - 1);
    pthread_setname_np(pthread_self(), shortName);
}

Thread::~Thread() {
    Join();
}

Thread& Thread::operator=(Thread&& other) noexcept {
    if (this != &other) {
        Join();
        thread_ = std::move(other.thread_);
    }
    return *this;
}

bool Thread::Start(std::function<void()> body, const std::string& name, ThreadPriority priority) {
    if (thread_.joinable() || !body) return false;
    // The body may use this object (a thread that joins or restarts its owner), so it waits
    // until the handle is stored here before it runs.
    auto stored = std::make_shared<std::promise<void>>();
    std::shared_future<void> ready = stored->get_future().share();
    try {
        thread_ = std::thread([body = std::move(body), name, priority, ready] {
            ready.wait();
            if (!name.empty()) SetCurrentThreadName(name.c_str());
            if (priority != ThreadPriority::Normal) SetCurrentThreadPriority(priority);
            body();
        });
    } catch (const std::system_error&) {
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
    stored->set_value();
    return true;
}

void Thread::Join() {
    if (!thread_.joinable()) return;
    // A thread cannot wait for itself; when its owner goes away from inside it (a playback
    // thread closing its own sequence), it is let go and finishes on its own.
    if (thread_.get_id() == std::this_thread::get_id())
        thread_.detach();
    else
        thread_.join();
}

}  // namespace kestor
