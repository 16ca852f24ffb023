// image and hvx: records of backup images, and tags.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "common/owned.h"
#include "tools/mb/commands.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace mb {
namespace {

using nlohmann::ordered_json;

/// Opens a session and makes one call, whose result may be the server's event.
template <typename Call>
void once(const Options& options, Call call) {
    tool::Session session(options.session);
    const std::string& name = options.image.name;
    session.attemptEvent(name.empty() ? "images" : "image " + tool::printable(name), call);
}

/// Prints a text about one image or data selection, as JSON in an array of one object. A NULL text
/// gives an empty array.
ExitCode print(const Options& options, const char* member, const char* text) {
    if (options.json) {
        auto list = ordered_json::array();
        if (text != nullptr) list.push_back({{member, text}});
        tool::printJson(list, 2);
    } else if (text != nullptr) {
        printf("%s\n", tool::printable(text).c_str());
    }
    return text != nullptr ? ExitCode::kOk : ExitCode::kNothing;
}

/// The images of an answer as objects, and the number of invalid lines.
std::pair<ordered_json, size_t> imagesOf(std::string_view text) {
    static constexpr const char* kNames[] = {"time",  "client", "policy", "parent",
                                             "image", "dofp",   "dcid",   "flags"};
    std::pair<ordered_json, size_t> found(ordered_json::array(), 0);
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::vector<std::string> fields = tool::fieldsOf(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        ordered_json image;
        for (size_t i = 0; i < std::size(kNames) && i < fields.size(); ++i) {
            const bool isNumber = i == 0 || i == 3 || i > 5;
            image[kNames[i]] = isNumber ? tool::numberOrText(fields[i]) : ordered_json(fields[i]);
        }
        const bool whole = fields.size() == std::size(kNames);
        if (whole) {
            found.first.push_back(std::move(image));
        } else {
            ++found.second;
        }
    }
    return found;
}

void printRetention(const Options& options, const MBImageRetentionInfo* r) {
    if (options.json) {
        auto list = ordered_json::array();
        if (r != nullptr) {
            list.push_back({{"retention", r->retentionValue1},
                            {"worm", r->retentionValue2},
                            {"flags", r->retentionValue3},
                            {"time", r->retentionValue4},
                            {"text", r->retentionText}});
        }
        tool::printJson(list, 2);
    } else if (r != nullptr) {
        printf(
            "%lld %lld %lld %lld %s\n", static_cast<long long>(r->retentionValue1),
            static_cast<long long>(r->retentionValue2), static_cast<long long>(r->retentionValue3),
            static_cast<long long>(r->retentionValue4), tool::printable(r->retentionText).c_str());
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
        // This status means an empty answer: there is no such image.
        return status == CR_STATUS_REMOTE_ERROR ? uint32_t{CR_STATUS_OK} : status;
    });
    const char* text = answer != nullptr ? answer.get() : "";
    if (options.json) {
        const auto [images, odd] = imagesOf(text);
        tool::printJson(images, 2);
        if (odd > 0) {
            throw tool::Failure("images: " + std::to_string(odd) +
                                " lines of the answer are no images");
        }
    } else {
        fputs(text, stdout);
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
    printRetention(options, none ? nullptr : info.get());
    return none ? ExitCode::kNothing : ExitCode::kOk;
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
    return print(options, "policy", policy.get());
}

ExitCode hvxTag(const Options& options) {
    tool::Session session(options.session);
    kspool::OwnedText tag;
    session.attempt(
        "tag",
        [&](MBSession* s) {
            char* text = nullptr;
            int32_t digit = 0;
            const uint32_t status = MBGetHVXTag(s, options.dataselection, &digit, &text);
            tag.reset(text);
            return status;
        },
        "spa");
    return print(options, "tag", tag.get());
}

}  // namespace mb
