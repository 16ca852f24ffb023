// Suspends connections for a time, so that one that waits does not hold up the others.
#ifndef SANDBOX_HTTP_ALARM_H
#define SANDBOX_HTTP_ALARM_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

struct MHD_Connection;

namespace sandbox {

class Alarm {
  public:
    Alarm();
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;
    ~Alarm() { stop(); }

    /// To be called by a handler of the connection. False when the server is stopping.
    bool suspend(MHD_Connection* connection, uint64_t milliseconds);
    /// Wakes all; must come before the server is stopped.
    void stop();

  private:
    using Clock = std::chrono::steady_clock;
    void work();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<Clock::time_point, MHD_Connection*> waiting_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace sandbox

#endif
