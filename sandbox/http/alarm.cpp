#include "sandbox/http/alarm.h"

#include <microhttpd.h>

#include <algorithm>

namespace sandbox {

Alarm::Alarm() : thread_([this] { work(); }) {}

bool Alarm::suspend(MHD_Connection* connection, uint64_t milliseconds) {
    // A time of 2^64 milliseconds would overflow the clock.
    constexpr uint64_t kDay = 86'400'000;
    const std::chrono::milliseconds time(std::min(milliseconds, kDay));
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return false;
    MHD_suspend_connection(connection);
    waiting_.emplace(Clock::now() + time, connection);
    changed_.notify_one();
    return true;
}

void Alarm::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        while (!waiting_.empty() && (stopping_ || waiting_.begin()->first <= Clock::now())) {
            MHD_resume_connection(waiting_.begin()->second);
            waiting_.erase(waiting_.begin());
        }
        if (stopping_) return;
        if (waiting_.empty()) {
            changed_.wait(lock);
        } else {
            const Clock::time_point next = waiting_.begin()->first;
            changed_.wait_until(lock, next);
        }
    }
}

void Alarm::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        changed_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
}

}  // namespace sandbox
