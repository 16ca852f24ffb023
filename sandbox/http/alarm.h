// Delays: suspends a connection and resumes it later.
//
// One thread of libmicrohttpd serves all connections, so a callback that sleeps would block all of
// them. A suspended connection is not in the event loop until it is resumed; libmicrohttpd then
// calls its handler, or the reader of its answer, again.
//
// Thread rule: suspend() in libmicrohttpd's thread, stop() in the one that ends the server; the
// alarm's own thread resumes.
//
// Invariants, under `mutex_`:
//  1. A connection is in `waiting_` if and only if suspend() suspended it and it was not resumed.
//     suspend() adds and suspends in one critical section: otherwise the alarm could resume a
//     connection before it is suspended, and it would stay suspended for ever.
//  2. Once `stopping_` is set, nothing is added, and the alarm's thread empties the list before it
//     ends: libmicrohttpd aborts the program when it is stopped with suspended connections.
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

    /// Suspends a connection for this time, a day at most. REQUIRES: called in a callback of the
    /// connection, which must return without an answer afterwards. False, and not suspended, when
    /// the server is stopping.
    bool suspend(MHD_Connection* connection, uint64_t milliseconds);
    /// Resumes all connections and ends the thread. REQUIRED before libmicrohttpd is stopped. May
    /// be called again.
    void stop();

  private:
    using Clock = std::chrono::steady_clock;
    void work();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<Clock::time_point, MHD_Connection*> waiting_;  ///< by the time of resuming
    bool stopping_ = false;
    std::thread thread_;  // the last member: the thread uses the others from its start
};

}  // namespace sandbox

#endif
