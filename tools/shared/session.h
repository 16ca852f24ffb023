// A session with the Metabase server whose failures say what happened, to what, and what to do
// next.
//
// Thread rule: one thread, as for Messages, which a session owns.
#ifndef TOOLS_SHARED_SESSION_H
#define TOOLS_SHARED_SESSION_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "mb.h"
#include "tools/shared/messages.h"

namespace tool {

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
    /// Opens a session; nothing is sent. Throws Failure, with kUsage when the options or the
    /// configuration are at fault.
    explicit Session(const SessionOptions& options);
    ~Session();

    const std::string& server() const { return server_; }  ///< as a terminal may show it

    /// The configuration's pool id, 0 without one.
    uint32_t poolId() const { return poolId_; }

    /// For Interrupts::abort().
    MBSession* handle() const { return session_.get(); }

    /// Makes one call of the library, which returns a status. Throws Failure for any status but
    /// CR_STATUS_OK; its text begins with `subject`, which may be empty. `service` is the call's
    /// service in docs/wire-protocol.md, and is only shown.
    void attempt(const std::string& subject, const std::function<uint32_t(MBSession*)>& call,
                 const char* service = "metabase");

    /// The same for a call that returns the code of the server's event as its status.
    void attemptEvent(const std::string& subject, const std::function<uint32_t(MBSession*)>& call,
                      const char* service = "metabase");

    /// The same for a query. The library does not say why a server refuses a query, so a second
    /// request, which is refused for the same reason, gets the event. Finding nothing is not a
    /// failure.
    void attemptQuery(uint32_t dataselection, const std::function<uint32_t(MBSession*)>& call);

  private:
    struct Shutdown {
        void operator()(MBSession* session) const { MBShutdown(session); }
    };

    void readConfiguration(const SessionOptions& options);
    void create(const SessionOptions& options, const std::string& url);
    void enableRetries(const SessionOptions& options);
    void showRequest();
    std::string explain(uint32_t status) const;
    std::string whatHappened(uint32_t status, uint32_t httpStatus) const;
    std::string advice(uint32_t status, uint32_t httpStatus) const;
    uint32_t statusOfEvent(uint32_t result);

    Messages messages_;  ///< declared first: MBShutdown() still reports
    std::unique_ptr<MBSession, Shutdown> session_;
    std::string reason_;  ///< why a query was refused; the library has none
    std::string server_;
    std::string path_;  ///< of the server's URL
    const char* service_ = "";
    uint64_t requests_ = 0;      ///< that were shown
    uint64_t microseconds_ = 0;  ///< that they took
    std::string login_;
    bool hasPassword_ = false;
    bool hasLoginInUrl_ = false;
    bool retries_ = false;
    std::string configFile_;  ///< empty: there is no configuration
    std::string configUrl_;
    std::string keyLocation_;
    int64_t reconnectTimeout_ = 0;
    uint32_t poolId_ = 0;
};

}  // namespace tool

#endif
