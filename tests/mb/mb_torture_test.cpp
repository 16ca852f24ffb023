// Sessions under failing calls: of the system, and of the platform's libraries.
#include <unistd.h>

#include "tests/support/operations.h"
#include "tests/support/torture.h"

namespace {

/// A call either succeeds, or returns a status and leaves the session as it was.
void allOrNothing(operations::Objects& objects, const std::string& call) {
    const bool hadSession = objects.session != nullptr;
    const size_t failed = calls::failures();
    *__cr_errno_location() = 0;
    const std::string out = operations::run(objects, call);
    EXPECT_TRUE(objects.status == CR_STATUS_OK || calls::failures() > failed)
        << call << ": " << out;
    EXPECT_TRUE(objects.status == CR_STATUS_OK || !objects.changed) << call << ": " << out;
    // Of the calls that make a session, one alone is not needed: the reconnect time-out.
    EXPECT_TRUE(objects.status != CR_STATUS_OK || calls::failures() == failed || !hadSession)
        << call << ": " << out;
}

/// Every operation. Queries are sent once, so that a failure is one.
void useSession(const std::string& config) {
    operations::Objects objects;
    for (const operations::Row& row : operations::rows("http://mbs", config)) {
        bool isReady = true;
        for (const std::string& call : row.before) {
            operations::run(objects, call);
            isReady = isReady && objects.status == CR_STATUS_OK;
        }
        scripted::Reply answer;
        answer.data = "dsid|\nt\n2\nA|\nB|\n";
        for (const char* call : {"WSRequestExt", "WSRequestPOST"})
            scripted::queued(call).push_back(answer);
        if (isReady) allOrNothing(objects, row.call);
        if (objects.cursor != nullptr && row.call.find("String") == std::string::npos)
            allOrNothing(objects, "MBPOFindNext . .");
        operations::run(objects, "MBPOFindClose");
        scripted::forgetQueued();
        if (objects.session == nullptr) break;
    }
}

TEST(SessionTorture, EveryCallFailsInTurn) {
    MBSetRetryCount(0);
    for (const char* config : {"null", "/agent.cfg"})
        torture::run([=] { useSession(config); });
}

/// At the end of all scenarios: they have together reached every wrapped call.
class AllReached : public testing::Environment {
  public:
    void TearDown() override {
        printf("torture: %zu scenarios, %zu injections\n", torture::scenarios, torture::injections);
        for (int call = 0; call < calls::kCalls; ++call) {
            if (call == calls::kFchown && geteuid() != 0) continue;  // only root gives files away
            EXPECT_GT(calls::made(static_cast<calls::Call>(call)), 0U) << "call " << call;
        }
    }
};
[[maybe_unused]] testing::Environment* const allReached =
    testing::AddGlobalTestEnvironment(new AllReached);

}  // namespace
