// Logins: verifies passwords in a thread of its own.
//
// Hashing a password takes some 30 ms. On libmicrohttpd's one thread, a few clients with wrong
// passwords could block all connections. Therefore the connection is suspended, and resumed when
// there is a verdict; libmicrohttpd then calls its handler again.
//
// The newest and the oldest waiting login are checked alternately. First in, first out would let a
// login wait for every guess before it; last in, first out could let it starve. So most logins wait
// for one or two others, and none for more than twice as many as were waiting before it.
//
// Thread rule: suspend() in libmicrohttpd's thread, stop() in the one that ends the server.
//
// Invariants, under `mutex_`:
//  1. A connection is in `waiting_`, or the thread works on it, if and only if suspend() suspended
//     it and it was not resumed (see Alarm's first invariant).
//  2. Once `stopping_` is set, nothing is added, and the thread resumes the whole list before it
//     ends, without verdicts.
#ifndef SANDBOX_HTTP_LOGINS_H
#define SANDBOX_HTTP_LOGINS_H

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "sandbox/accounts.h"

struct MHD_Connection;

namespace sandbox {

/// The check of a request's login.
struct Login {
    bool asked = false;
    /// Set before the connection is resumed; nullopt if there is no verdict (memory is short, the
    /// server is stopping). NULL is a refusal.
    std::optional<const Accounts::Entry*> verdict;
};

class Logins {
  public:
    /// REQUIRES: `accounts` outlives this, and gets no more accounts.
    explicit Logins(const Accounts& accounts);
    Logins(const Logins&) = delete;
    Logins& operator=(const Logins&) = delete;
    ~Logins() { stop(); }

    /// Suspends a connection until `login` has the verdict on this Authorization header. REQUIRES:
    /// called in a callback of the connection, which must return without an answer afterwards;
    /// `login` lives as long as the request. False, and not suspended, when the server is stopping.
    bool suspend(MHD_Connection* connection, const std::string& header, Login& login);
    /// Resumes all connections and ends the thread. REQUIRED before libmicrohttpd is stopped. May
    /// be called again.
    void stop();

  private:
    struct Job {
        MHD_Connection* connection;
        std::string header;
        Login* login;
    };
    void work();
    Job take(bool newest);
    void decide(const Job& job) const noexcept;

    const Accounts& accounts_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Job> waiting_;  ///< in the order of arrival
    bool stopping_ = false;
    std::thread thread_;  // the last member: the thread uses the others from its start
};

}  // namespace sandbox

#endif
