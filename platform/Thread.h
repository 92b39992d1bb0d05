// Threads with a name and a scheduling priority, for the streaming, recording and playback
// threads. Priorities are best effort: a process without the right to raise them keeps running
// at the priority it has.
#pragma once

#include <functional>
#include <string>
#include <thread>

namespace kestor {

enum class ThreadPriority { Idle, Lowest, BelowNormal, Normal, AboveNormal, Highest, TimeCritical };

// False when the system refused (raising priority needs privileges); the thread carries on.
// TimeCritical asks for real-time scheduling; when that is refused it still takes the highest
// nice level it may, but reports false.
bool SetCurrentThreadPriority(ThreadPriority priority);

// Shown by debuggers and `top -H`; cut to the 15 characters the system keeps.
void SetCurrentThreadName(const char* name);

class Thread {
public:
    Thread() = default;
    ~Thread();  // joins a thread that is still running
    Thread(Thread&&) noexcept = default;
    Thread& operator=(Thread&& other) noexcept;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Runs `body` on a new thread that first takes the name and priority. False when a thread
    // is already held or none could be created.
    bool Start(std::function<void()> body, const std::string& name = {},
               ThreadPriority priority = ThreadPriority::Normal);
    void Join();  // no effect when not joinable; from the thread itself, lets it go (detach)
    bool Joinable() const { return thread_.joinable(); }

private:
    std::thread thread_;
};

}  // namespace kestor
