// A session with the pool's server, and what is told of its failures.
#ifndef TOOLS_SHARED_SESSION_H
#define TOOLS_SHARED_SESSION_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mb.h"
#include "tools/shared/messages.h"

namespace pool {

struct SessionOptions {
    std::string config;        ///< empty: where the library finds it
    std::string server;        ///< empty: the configuration's
    std::string login;         ///< empty: none
    std::string passwordFile;  ///< empty: none, "-": standard input
    int32_t retry = 0;         ///< seconds
    bool verbose = false;
    bool quiet = false;
};

class Session {
  public:
    /// Opens a session or complains; nothing is sent.
    explicit Session(const SessionOptions& options);

    /// kExitOk when the session is open, else what the program shall exit with.
    int code() const { return code_; }

    const std::string& server() const { return server_; }  ///< as a terminal may show it

    /// One line on stderr about `subject`, which may be empty.
    static void complain(const std::string& subject, const std::string& text);

    /// Makes one call of the library. Complains about its failure and returns the exit code.
    int attempt(const std::string& subject, const std::function<uint32_t(MBSession*)>& call);

    /// The same for a call that returns the server's event where others return a status.
    int attemptEvent(const std::string& subject, const std::function<uint32_t(MBSession*)>& call);

    /// The same for a query, of which the library does not hand on why a server refuses it: another
    /// request asks for the reason. That nothing is found is no failure.
    int attemptQuery(uint32_t dataselection, const std::function<uint32_t(MBSession*)>& call);

  private:
    struct Shutdown {
        void operator()(MBSession* session) const { MBShutdown(session); }
    };

    int open(const SessionOptions& options);
    std::string readConfiguration(const SessionOptions& options);
    int create(const SessionOptions& options, const std::string& url);
    int enableRetries(const SessionOptions& options);
    std::string explain(uint32_t status) const;
    uint32_t statusOfEvent(uint32_t result);

    Messages messages_;  // outlives the session, which may have last words
    std::unique_ptr<MBSession, Shutdown> session_;
    std::string reason_;  ///< of a refusal, where the library has none
    std::string server_;
    std::string login_;
    bool hasPassword_ = false;
    std::string configFile_;  ///< empty when there is none
    std::string configUrl_;
    std::string keyLocation_;
    int64_t reconnectTimeout_ = 0;
    int code_;
};

}  // namespace pool

#endif
