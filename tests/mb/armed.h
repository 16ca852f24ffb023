// What the tests with failing calls below a real transport share: servers, and sessions whose calls
// can be made to fail.
#ifndef TESTS_ARMED_H
#define TESTS_ARMED_H

#include <array>
#include <cstdlib>
#include <memory>
#include <string>

#include "tests/support/failing_calls.h"
#include "tests/support/folder.h"
#include "tests/support/operations.h"
#include "tests/support/sandbox_process.h"

namespace hooks {

extern FailurePlan plan;         ///< which call fails
extern long live;                ///< allocations that were not released
extern thread_local bool armed;  ///< whether calls are counted and may fail

}  // namespace hooks

/// A server with its folder, over http or TLS with a client's certificate.
class Pool {
  public:
    explicit Pool(bool tls) {
        const std::string made = folder_.path + "/pool";
        sandbox::setUp({made, tls ? "https://127.0.0.1:1" : "http://127.0.0.1:1", tls, false});
        sandbox::Settings settings = sandbox::readSetup(made);
        settings.port = 0;
        settings.sync = false;
        settings.accounts = {{"me", "secret", {"read", "write", "delete"}}};
        config = made + "/agent.cfg";
        server_ = std::make_unique<SandboxProcess>(settings);
        url = server_->url;
    }
    std::string url, config;

  private:
    Folder folder_;
    std::unique_ptr<SandboxProcess> server_;
};

extern std::array<std::unique_ptr<Pool>, 2> pools;  ///< http, TLS

/// Calls are made to fail within the library alone, and only while wanted.
struct Armed : operations::Objects {
    void enter() override { hooks::armed = isWanted; }
    void leave() override { hooks::armed = false; }
    bool isWanted = false;
};

/// The statuses of what may fail here: no memory, and what the transport makes of dead connections.
inline bool isNamed(uint32_t status) {
    return status == CR_STATUS_NO_MEMORY || status == 1012 || (status >= 2000 && status <= 2009) ||
           status == CR_STATUS_LIMIT_EXCEEDED;
}

#endif
