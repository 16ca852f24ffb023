// Whatever a server answers about an image, a tag or the time: what comes out is what a plain
// reading of it has.
#include <cstring>
#include <vector>

#include "mb.h"
#include "platform/net.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/fuzz_transport.h"

namespace {

/// The fields before the first empty one, each cut to 1023 characters as a field of its own.
std::vector<std::string> plainFields(const std::string& answer) {
    constexpr size_t kMost = 1023;
    std::vector<std::string> fields;
    for (size_t at = 0; at < answer.size() && answer[at] != ';';) {
        fields.push_back(answer.substr(at, std::min(answer.find(';', at) - at, kMost)));
        at += fields.back().size() + 1;
    }
    return fields;
}

void checkRetention(MBSession* session, const std::string& answer) {
    MBImageRetentionInfo info{};
    const uint32_t status = MBGetImageRetention(session, 1, "client", "policy", "image", &info);
    MUST(status == (answer.empty() ? 4U : 0U));
    const auto fields = plainFields(answer);
    const int64_t numbers[] = {info.retentionValue1, info.retentionValue2, info.retentionValue3,
                               info.retentionValue4};
    for (size_t i = 0; i < 4; ++i) {
        MUST(numbers[i] == (i < fields.size() ? strtoll(fields[i].c_str(), nullptr, 10) : 0));
    }
    MUST(info.retentionText == (fields.size() > 4 ? fields[4] : ""));
}

void checkTag(MBSession* session, const std::string& answer) {
    int32_t digit = 0;
    char* tag = nullptr;
    const uint32_t status = MBGetHVXTag(session, 1, &digit, &tag);
    const int plain = answer.empty() ? 0 : static_cast<signed char>(answer[0]) - '0';
    MUST(status == (answer.empty() ? 4U : plain > 0 && answer.size() < 3 ? 82U : 0U));
    MUST(answer.empty() || digit == plain);
    MUST((tag != nullptr) == (status == 0 && plain > 0));
    if (tag != nullptr) {
        std::string decoded = answer.substr(2, answer.size() - 3);
        URLDecode(decoded.data());
        MUST(tag == std::string(decoded.c_str()));
    }
    free(tag);
}

void checkTexts(MBSession* session, const std::string& answer) {
    char *images = nullptr, *policy = nullptr, *listing = nullptr;
    size_t length = 4711;
    uint32_t serverTime = 0;
    const uint32_t expected = answer.empty() ? 4 : 0;
    MUST(MBGetLastImages(session, 1, "client", "policy", 0, 0, &images) == expected);
    MUST(MBFindImagePolicy(session, 1, "client", "image", &policy) == expected);
    MUST(answer.empty() ? images == nullptr && policy == nullptr
                        : images == answer && policy == answer);
    if (MBDirList(session, "/", &listing, &length, 1) == 0 && listing != nullptr) {
        MUST(listing == answer);
    }
    MBGetTime(session, &serverTime);
    free(images);
    free(policy);
    free(listing);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    fuzz::discardMessages();
    const std::string answer = fuzz::Input(bytes, size).all().c_str();
    fuzz::onRequest = [&](WSResult& result) {
        result.data = answer.empty() ? nullptr : strdup(answer.c_str());
        return 0U;
    };
    MBSession* session = MBInitWithAgentCfg("http://127.0.0.1:1", 0, "a", "b", "/dev/null");
    MUST(session != nullptr);
    checkRetention(session, answer);
    checkTag(session, answer);
    checkTexts(session, answer);
    MBShutdown(session);
    return 0;
}
