// Sessions under failing calls: of the system, and of the platform's libraries.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "common/diagnostics.h"
#include "mb.h"
#include "mb/mb_int.h"
#include "tests/support/torture.h"

namespace {

/// A call on a session either succeeds or returns a status and leaves the session as it was.
template <typename Call>
void allOrNothing(MBSession* session, Call call) {
    auto before = std::make_unique<MBSession>(*session);
    kspool::statusSlot() = 7;
    const size_t failed = calls::failures();
    const uint32_t status = call();
    EXPECT_EQ(status != CR_STATUS_OK, calls::failures() > failed) << status;
    const bool same = memcmp(before.get(), session, sizeof *session) == 0;
    EXPECT_TRUE(same || status == CR_STATUS_OK) << status;
}

KSOption textOption(uint32_t code, const char* text) {
    KSOption option{code, {}};
    option.value.text = text;
    return option;
}

void useSession(MBSession* session) {
    const KSOption options[] = {textOption(KS_OPT_LOGIN, "me"),
                                textOption(KS_OPT_MBS_URL, "http://mbs"),
                                {KS_OPT_133, {5}}};
    uint32_t time = 0;
    char* listing = nullptr;
    scripted::Reply answer;
    answer.data = "17";
    allOrNothing(session, [&] { return MBOptionsSet(session, options, 3); });
    allOrNothing(session, [&] { return MBAuthenticate(session, "me", "secret"); });
    allOrNothing(session, [&] { return MBDirCreate(session, "/a"); });
    allOrNothing(session, [&] { return MBFileCopy(session, "/a", "/b", 1); });
    allOrNothing(session, [&] { return MBFileMove(session, "/a", "/b", 1); });
    allOrNothing(session, [&] { return MBFileDelete(session, "/a", 1); });
    scripted::queueReply("WSRequestExt", answer);
    allOrNothing(session, [&] { return MBDirList(session, "/", &listing, nullptr, 1); });
    free(listing);
    scripted::queueReply("WSRequestExt", answer);
    allOrNothing(session, [&] { return MBGetTime(session, &time); });
    allOrNothing(session, [&] { return MBKeepAlive(session, -1); });
    allOrNothing(session, [&] { return MBEnableResiliency(session, 5); });
}

/// Whether a query with a cursor succeeded.
uint32_t walk(MBSession* session, bool lines) {
    MBPOFilter filter{};
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);
    PO po{};
    char* line = nullptr;
    MBPOCursor* cursor = lines ? MBPOStringFindFirst(session, 1, &filter, &line, nullptr)
                               : MBPOFindFirst(session, 1, &filter, &po, nullptr);
    uint32_t status = cursor != nullptr ? uint32_t{CR_STATUS_OK} : kspool::statusSlot();
    if (cursor != nullptr && !lines) status = MBPOFindNext(cursor, &po);
    MBPOFindClose(cursor);
    free(po.text);
    return status;
}

/// The operations on POs and images. Queries are sent once, so that a failure is one.
void usePOs(MBSession* session) {
    MBPOFilter filter{};
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);
    MBImageRetentionInfo info{};
    char* text = nullptr;
    int32_t digit = 0;
    const auto withAnswer = [&](const char* call, const char* answer, auto operation) {
        scripted::Reply reply;
        reply.data = answer;
        scripted::queueReply(call, reply);
        allOrNothing(session, operation);
        free(std::exchange(text, nullptr));
        scripted::forgetQueued();
    };
    constexpr char kExt[] = "WSRequestExt", kPost[] = "WSRequestPOST", kTwo[] = "n\nt\n2\nA|\nB|\n";
    withAnswer(kExt, "dsid|", [&] { return MBPOImport(session, 1, "pos"); });
    withAnswer(kPost, "dsid|", [&] { return MBPOAddList(session, 1, "pos"); });
    withAnswer(kPost, "dsid|", [&] { return MBPOZELTAddList(session, 1, "pos"); });
    withAnswer(kExt, "x", [&] { return MBPOExpire(session, 1, "pos"); });
    withAnswer(kExt, kTwo, [&] { return MBPOFind(session, 1, &filter, &text, nullptr, nullptr); });
    withAnswer(kExt, kTwo, [&] { return walk(session, true); });
    withAnswer(kExt, kTwo, [&] { return walk(session, false); });
    withAnswer(kExt, "x", [&] { return MBSetLastImageV2(session, 1, "", "", 1, 1, "", 1); });
    withAnswer(kExt, "x", [&] { return MBSetLastImage(session, 1, "", "", 1, "", 1, 1, 1); });
    withAnswer(kExt, "x", [&] { return MBGetLastImages(session, 1, "", "", 1, 1, &text); });
    withAnswer(kExt, "x", [&] { return MBDeleteImage(session, 1, "", "", "", 1); });
    withAnswer(kExt, "x", [&] { return MBSetImageRetention(session, 1, "", "", "", 1, 1, 1); });
    withAnswer(kExt, "1;2", [&] { return MBGetImageRetention(session, 1, "", "", "", &info); });
    withAnswer(kExt, "x", [&] { return MBFindImagePolicy(session, 1, "", "", &text); });
    withAnswer(kExt, "1|x\n", [&] { return MBGetHVXTag(session, 1, &digit, &text); });
}

TEST(SessionTorture, EveryCallFailsInTurn) {
    MBSetRetryCount(0);
    for (const char* path : {static_cast<const char*>(nullptr), "/agent.cfg"}) {
        torture::run([=](const std::string&) {
            const KSOption options[] = {textOption(KS_OPT_MBS_URL, "http://mbs"),
                                        textOption(KS_OPT_PASSWORD, "secret")};
            MBSession* session = MBCreateWithAgentCfg(1, options, 2, path);
            // Of the calls that failed so far, one alone is not needed: the reconnect time-out.
            if (session == nullptr) {
                EXPECT_GT(calls::failures(), 0U);
                EXPECT_NE(kspool::statusSlot(), 0U);
                return;
            }
            EXPECT_EQ(kspool::statusSlot(), 0U);
            useSession(session);
            usePOs(session);
            MBShutdown(session);
        });
    }
}

/// At the end of all scenarios: they have together reached every wrapped call.
class AllReached : public testing::Environment {
  public:
    void TearDown() override {
        printf("torture: %zu scenarios, %zu injections\n", torture::scenarios, torture::injections);
        for (int call = 0; call < calls::kCalls; ++call)
            EXPECT_GT(calls::made(static_cast<calls::Call>(call)), 0U) << "call " << call;
    }
};
[[maybe_unused]] testing::Environment* const allReached =
    testing::AddGlobalTestEnvironment(new AllReached);

}  // namespace
