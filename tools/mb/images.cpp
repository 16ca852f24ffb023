// image and hvx: records of backup images, and tags.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "tools/mb/commands.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace pool {
namespace {

/// Opens a session and makes one call, whose result may be the server's event.
template <typename Call>
int once(const Options& options, Call call) {
    Session session(options.session);
    if (const int code = session.code()) return code;
    const std::string& name = options.image.name;
    return session.attemptEvent(name.empty() ? "images" : "image " + tool::printable(name), call);
}

void print(const Options& options, const char* member, const char* text) {
    if (options.json) {
        tool::printJson({{member, text}}, 2);
    } else {
        printf("%s\n", tool::printable(text).c_str());
    }
}

}  // namespace

int setImage(const Options& options) {
    const ImageOptions& i = options.image;
    const uint64_t when = i.time != 0 ? i.time : static_cast<uint64_t>(::time(nullptr));
    return once(options, [&](MBSession* mb) {
        return MBSetLastImageV2(mb, options.dataselection, i.client.c_str(), i.policy.c_str(),
                                i.parent, when, i.name.c_str(), i.flags);
    });
}

int lastImages(const Options& options) {
    const ImageOptions& i = options.image;
    char* answer = nullptr;
    int code = once(options, [&](MBSession* mb) {
        const uint32_t status = MBGetLastImages(mb, options.dataselection, i.client.c_str(),
                                                i.policy.c_str(), i.wantedParent, i.time, &answer);
        // No answer is no image.
        return status == CR_STATUS_REMOTE_ERROR ? uint32_t{CR_STATUS_OK} : status;
    });
    const tool::LibraryText owned(answer);
    if (code != tool::kExitOk) return code;
    if (options.json) {
        tool::printJson({{"images", answer != nullptr ? answer : ""}}, 2);
    } else if (answer != nullptr) {
        fputs(answer, stdout);
    }
    return answer != nullptr ? tool::kExitOk : tool::kExitNothing;
}

int deleteImage(const Options& options) {
    const ImageOptions& i = options.image;
    return once(options, [&](MBSession* mb) {
        return MBDeleteImage(mb, options.dataselection, i.client.c_str(), i.policy.c_str(),
                             i.name.c_str(), i.flags);
    });
}

int imageRetention(const Options& options) {
    const ImageOptions& i = options.image;
    if (i.retention >= 0) {
        return once(options, [&](MBSession* mb) {
            return MBSetImageRetention(mb, options.dataselection, i.client.c_str(),
                                       i.policy.c_str(), i.name.c_str(), i.flags, i.worm,
                                       i.retention);
        });
    }
    const auto info = std::make_unique<MBImageRetentionInfo>();
    bool none = false;
    const int code = once(options, [&](MBSession* mb) {
        const uint32_t status = MBGetImageRetention(mb, options.dataselection, i.client.c_str(),
                                                    i.policy.c_str(), i.name.c_str(), info.get());
        none = status == CR_STATUS_REMOTE_ERROR;
        return none ? uint32_t{CR_STATUS_OK} : status;
    });
    if (code != tool::kExitOk || none) return none ? int{tool::kExitNothing} : code;
    const MBImageRetentionInfo& r = *info;
    if (options.json) {
        tool::printJson(
            {{"values",
              {r.retentionValue1, r.retentionValue2, r.retentionValue3, r.retentionValue4}},
             {"text", r.retentionText}},
            2);
    } else {
        printf("%lld %lld %lld %lld %s\n", static_cast<long long>(r.retentionValue1),
               static_cast<long long>(r.retentionValue2), static_cast<long long>(r.retentionValue3),
               static_cast<long long>(r.retentionValue4), tool::printable(r.retentionText).c_str());
    }
    return tool::kExitOk;
}

int imagePolicy(const Options& options) {
    const ImageOptions& i = options.image;
    char* policy = nullptr;
    const int code = once(options, [&](MBSession* mb) {
        return MBFindImagePolicy(mb, options.dataselection, i.client.c_str(), i.name.c_str(),
                                 &policy);
    });
    const tool::LibraryText owned(policy);
    if (code == tool::kExitOk) print(options, "policy", policy);
    return code;
}

int hvxTag(const Options& options) {
    Session session(options.session);
    if (const int code = session.code()) return code;
    char* tag = nullptr;
    int32_t digit = 0;
    const int code = session.attempt(
        "tag", [&](MBSession* mb) { return MBGetHVXTag(mb, options.dataselection, &digit, &tag); });
    const tool::LibraryText owned(tag);
    if (code != tool::kExitOk) return code;
    if (tag == nullptr) return tool::kExitNothing;
    print(options, "tag", tag);
    return tool::kExitOk;
}

}  // namespace pool
