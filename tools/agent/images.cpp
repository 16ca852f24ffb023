#include "tools/agent/images.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>

#include "tools/agent/query.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;

bool isPattern(const std::string& text) {
    return text.find_first_of("*?") != std::string::npos;
}

/// Matches as the server does: only `*` and `?` are special.
bool matches(const std::string& pattern, const std::string& text) {
    std::string escaped;
    for (const char c : pattern) {
        if (c == '[' || c == '\\') escaped += '\\';
        escaped += c;
    }
    return fnmatch(escaped.c_str(), text.c_str(), 0) == 0;
}

/// A day as a table shows it.
std::string dayOf(int64_t seconds) {
    return tool::localTime(seconds).substr(0, 10);
}

std::string minuteOf(int64_t seconds) {
    return tool::localTime(seconds).substr(0, 16);
}

int64_t endOf(const Retention& retention) {
    int64_t end = 0;
    return __builtin_add_overflow(retention.setAt, retention.seconds, &end) ? INT64_MAX : end;
}

using Retentions = std::vector<std::optional<Retention>>;  ///< one for each image

void printTable(const std::vector<ImageSummary>& all, const Retentions& retentions) {
    size_t client = 6;  // width of the heading
    size_t policy = 6;
    for (const ImageSummary& image : all) {
        client = std::max(client, tool::printable(image.name.client).size());
        policy = std::max(policy, tool::printable(image.name.policy).size());
    }
    printf("%-16s %9s %10s  %-10s  %-*s %-*s IMAGE\n", "TIME", "FILES", "BYTES", "KEPT UNTIL",
           static_cast<int>(client), "CLIENT", static_cast<int>(policy), "POLICY");
    for (size_t i = 0; i < all.size(); ++i) {
        const ImageSummary& image = all[i];
        const std::string state = !image.complete ? "incomplete"
                                  : retentions[i] ? dayOf(endOf(*retentions[i]))
                                                  : "-";
        printf("%-16s %9s %10s  %-10s  %-*s %-*s %s\n", minuteOf(image.time).c_str(),
               tool::humanCount(image.files).c_str(), tool::humanBytes(image.bytes).c_str(),
               state.c_str(), static_cast<int>(client), tool::printable(image.name.client).c_str(),
               static_cast<int>(policy), tool::printable(image.name.policy).c_str(),
               tool::printable(image.name.image).c_str());
    }
}

void printJson(const std::vector<ImageSummary>& all, const Retentions& retentions) {
    auto list = nlohmann::ordered_json::array();
    for (size_t i = 0; i < all.size(); ++i) {
        const ImageSummary& image = all[i];
        nlohmann::ordered_json object{{"time", tool::isoTime(image.time)},
                                      {"client", image.name.client},
                                      {"policy", image.name.policy},
                                      {"image", image.name.image},
                                      {"complete", image.complete},
                                      {"files", image.files},
                                      {"bytes", image.bytes},
                                      {"entries", image.entries}};
        object["retention"] = nullptr;
        if (const auto& kept = retentions[i]) {
            object["retention"] = {{"seconds", kept->seconds},
                                   {"until", tool::isoTime(endOf(*kept))},
                                   {"worm", kept->wormFlags}};
        }
        list.push_back(std::move(object));
    }
    tool::printJson(list, 2);
}

}  // namespace

void count(const FoundPO& found, ImageSummary& image) {
    ++image.entries;
    const FileStatus& status = found.record.status;
    if (!status.isFile()) return;
    ++image.files;
    image.bytes += status.size;
}

std::vector<ImageSummary> summarize(tool::Session& session, const ImageName& patterns) {
    using Key = std::tuple<std::string, std::string, std::string>;
    const auto keyOf = [](const ImageName& n) { return Key{n.client, n.policy, n.image}; };
    const auto exact = [](const std::string& text) { return isPattern(text) ? "" : text; };
    std::map<Key, ImageSummary> known;
    // Fetch the records before the POs: all POs of an image are set before its record.
    for (ImageRecord& r : listImages(session, patterns.dataselection, exact(patterns.client),
                                     exact(patterns.policy))) {
        if (!matches(patterns.client, r.name.client) || !matches(patterns.policy, r.name.policy))
            continue;
        const Key key = keyOf(r.name);
        known[key] = {.name = std::move(r.name), .complete = true, .time = r.time};
    }
    Criteria criteria{.name = patterns};
    criteria.name.image.clear();
    findPOs(session, criteria, [&](FoundPO&& found, std::string_view) {
        ImageSummary& image = known[keyOf(found.name)];
        if (!image.complete) {
            image.name = found.name;
            image.time = std::max(image.time, found.record.recordedAt);
        }
        count(found, image);
    });
    std::vector<ImageSummary> all;
    all.reserve(known.size());
    for (auto& [key, image] : known)
        all.push_back(std::move(image));
    std::stable_sort(all.begin(), all.end(),
                     [](const ImageSummary& a, const ImageSummary& b) { return a.time < b.time; });
    return all;
}

ExitCode images(const ImagesOptions& options) {
    tool::Session session(options.session);
    const std::vector<ImageSummary> all = summarize(session, options.name);
    Retentions retentions;
    for (const ImageSummary& image : all)
        retentions.push_back(image.complete ? retentionOf(session, image.name) : std::nullopt);
    if (options.json) {
        printJson(all, retentions);
    } else if (!all.empty()) {
        printTable(all, retentions);
    }
    return all.empty() ? ExitCode::kNothing : ExitCode::kOk;
}

}  // namespace agent
