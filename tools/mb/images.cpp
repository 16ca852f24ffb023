// image and hvx: records of backup images, and tags.
#include <cstdio>
#include <ctime>
#include <memory>

#include "common/owned.h"
#include "tools/mb/commands.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace mb {
namespace {

/// Opens a session and makes one call, whose result may be the server's event.
template <typename Call>
void once(const Options& options, Call call) {
    tool::Session session(options.session);
    const std::string& name = options.image.name;
    session.attemptEvent(name.empty() ? "images" : "image " + tool::printable(name), call);
}

void print(const Options& options, const char* member, const char* text) {
    if (options.json) {
        tool::printJson({{member, text}}, 2);
    } else {
        printf("%s\n", tool::printable(text).c_str());
    }
}

}  // namespace

ExitCode setImage(const Options& options) {
    const ImageOptions& i = options.image;
    const uint64_t when = i.time != 0 ? i.time : static_cast<uint64_t>(::time(nullptr));
    once(options, [&](MBSession* s) {
        return MBSetLastImageV2(s, options.dataselection, i.client.c_str(), i.policy.c_str(),
                                i.parent, when, i.name.c_str(), i.flags);
    });
    return ExitCode::kOk;
}

ExitCode lastImages(const Options& options) {
    const ImageOptions& i = options.image;
    kspool::OwnedText answer;
    once(options, [&](MBSession* s) {
        char* text = nullptr;
        const uint32_t status = MBGetLastImages(s, options.dataselection, i.client.c_str(),
                                                i.policy.c_str(), i.wantedParent, i.time, &text);
        answer.reset(text);
        // The status of an empty answer: there is no such image.
        return status == CR_STATUS_REMOTE_ERROR ? uint32_t{CR_STATUS_OK} : status;
    });
    if (options.json) {
        tool::printJson({{"images", answer != nullptr ? answer.get() : ""}}, 2);
    } else if (answer != nullptr) {
        fputs(answer.get(), stdout);
    }
    return answer != nullptr ? ExitCode::kOk : ExitCode::kNothing;
}

ExitCode deleteImage(const Options& options) {
    const ImageOptions& i = options.image;
    once(options, [&](MBSession* s) {
        return MBDeleteImage(s, options.dataselection, i.client.c_str(), i.policy.c_str(),
                             i.name.c_str(), i.flags);
    });
    return ExitCode::kOk;
}

ExitCode imageRetention(const Options& options) {
    const ImageOptions& i = options.image;
    if (i.retention >= 0) {
        once(options, [&](MBSession* s) {
            return MBSetImageRetention(s, options.dataselection, i.client.c_str(), i.policy.c_str(),
                                       i.name.c_str(), i.flags, i.worm, i.retention);
        });
        return ExitCode::kOk;
    }
    const auto info = std::make_unique<MBImageRetentionInfo>();
    bool none = false;
    once(options, [&](MBSession* s) {
        const uint32_t status = MBGetImageRetention(s, options.dataselection, i.client.c_str(),
                                                    i.policy.c_str(), i.name.c_str(), info.get());
        none = status == CR_STATUS_REMOTE_ERROR;
        return none ? uint32_t{CR_STATUS_OK} : status;
    });
    if (none) return ExitCode::kNothing;
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
    return ExitCode::kOk;
}

ExitCode imagePolicy(const Options& options) {
    const ImageOptions& i = options.image;
    kspool::OwnedText policy;
    once(options, [&](MBSession* s) {
        char* text = nullptr;
        const uint32_t status =
            MBFindImagePolicy(s, options.dataselection, i.client.c_str(), i.name.c_str(), &text);
        policy.reset(text);
        return status;
    });
    print(options, "policy", policy.get());
    return ExitCode::kOk;
}

ExitCode hvxTag(const Options& options) {
    tool::Session session(options.session);
    kspool::OwnedText tag;
    session.attempt("tag", [&](MBSession* s) {
        char* text = nullptr;
        int32_t digit = 0;
        const uint32_t status = MBGetHVXTag(s, options.dataselection, &digit, &text);
        tag.reset(text);
        return status;
    });
    if (tag == nullptr) return ExitCode::kNothing;
    print(options, "tag", tag.get());
    return ExitCode::kOk;
}

}  // namespace mb
