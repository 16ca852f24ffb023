#include "tools/agent/expire.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/agent/images.h"
#include "tools/agent/query.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;

enum class Expiry { kExpired, kRefused, kKept };

struct Candidate {
    ImageSummary image;
    Expiry fate = Expiry::kExpired;
};

/// The images above the age, the oldest first. The newest complete image is marked as kept, unless
/// it is to be expired as well.
std::vector<Candidate> olderThan(tool::Session& session, const ExpireOptions& options) {
    std::vector<ImageSummary> all = summarize(session, options.name);
    const auto newest = std::find_if(all.rbegin(), all.rend(),
                                     [](const ImageSummary& image) { return image.complete; });
    const int64_t limit = std::time(nullptr) - static_cast<int64_t>(options.age);
    std::vector<Candidate> chosen;
    for (auto image = all.rbegin(); image != all.rend(); ++image) {
        if (image->time >= limit) continue;
        const bool kept = image == newest && !options.evenNewest;
        chosen.push_back({*image, kept ? Expiry::kKept : Expiry::kExpired});
    }
    std::reverse(chosen.begin(), chosen.end());
    return chosen;
}

/// The one image that the user named; empty if the server does not know it.
std::vector<Candidate> named(tool::Session& session, const ExpireOptions& options) {
    const ImageName& n = options.name;
    Candidate one;
    one.image.name = n;
    for (const ImageRecord& r : listImages(session, n.dataselection, n.client, n.policy)) {
        if (r.name.image != n.image) continue;
        one.image.complete = true;
        one.image.time = r.time;
    }
    findImage(session, n, [&](FoundPO&& found, std::string_view) { count(found, one.image); });
    if (!one.image.complete && one.image.entries == 0) return {};
    return {std::move(one)};
}

void expireImage(tool::Session& session, const ImageName& name) {
    std::string lines;
    findImage(session, name,
              [&](FoundPO&&, std::string_view line) { lines.append(line).append("\n"); });
    deleteImage(session, name);
    expirePOs(session, name.dataselection, lines);
}

void printRow(const Candidate& one, bool dryRun) {
    const ImageSummary& image = one.image;
    const char* word = one.fate == Expiry::kKept      ? "kept"
                       : one.fate == Expiry::kRefused ? "failed"
                       : dryRun                       ? "would go"
                                                      : "expired";
    printf("%-8s  %s  %9s files  %10s  %s%s\n", word,
           tool::localTime(image.time).substr(0, 16).c_str(), tool::humanCount(image.files).c_str(),
           tool::humanBytes(image.bytes).c_str(), tool::printable(image.name.image).c_str(),
           one.fate == Expiry::kKept ? ", the newest image"
           : image.complete          ? ""
                                     : ", incomplete");
}

struct Totals {
    uint64_t images = 0, entries = 0, files = 0, bytes = 0;
};

Totals totalOf(const std::vector<Candidate>& all) {
    Totals sum;
    for (const Candidate& one : all) {
        if (one.fate != Expiry::kExpired) continue;
        ++sum.images;
        sum.entries += one.image.entries;
        sum.files += one.image.files;
        sum.bytes += one.image.bytes;
    }
    return sum;
}

void printText(const std::vector<Candidate>& all, const ExpireOptions& options) {
    bool kept = false;
    for (const Candidate& one : all) {
        printRow(one, options.dryRun);
        kept = kept || one.fate == Expiry::kKept;
    }
    const Totals sum = totalOf(all);
    printf("%s: images %s, files %s, %s\n", options.dryRun ? "would go" : "expired",
           tool::humanCount(sum.images).c_str(), tool::humanCount(sum.files).c_str(),
           tool::humanBytes(sum.bytes).c_str());
    if (kept) printf("The newest image is kept; --even-newest expires it too.\n");
}

void printJson(const std::vector<Candidate>& all, const ExpireOptions& options) {
    auto list = nlohmann::ordered_json::array();
    for (const Candidate& one : all) {
        const ImageSummary& image = one.image;
        list.push_back({{"image", image.name.image},
                        {"client", image.name.client},
                        {"policy", image.name.policy},
                        {"time", tool::isoTime(image.time)},
                        {"complete", image.complete},
                        {"files", image.files},
                        {"bytes", image.bytes},
                        {"entries", image.entries},
                        {"fate", one.fate == Expiry::kKept      ? "kept"
                                 : one.fate == Expiry::kRefused ? "failed"
                                                                : "expired"}});
    }
    const Totals sum = totalOf(all);
    tool::printJson({{"dryRun", options.dryRun},
                     {"expired", sum.entries},
                     {"files", sum.files},
                     {"bytes", sum.bytes},
                     {"images", std::move(list)}},
                    2);
}

}  // namespace

ExitCode expire(const ExpireOptions& options) {
    tool::Session session(options.session);
    std::vector<Candidate> all =
        options.name.image.empty() ? olderThan(session, options) : named(session, options);
    tool::Steps steps;
    bool any = false;
    for (Candidate& one : all) {
        if (one.fate == Expiry::kKept) continue;
        any = true;
        if (options.dryRun) continue;
        if (!steps.run([&] { expireImage(session, one.image.name); })) one.fate = Expiry::kRefused;
    }
    if (options.json) {
        printJson(all, options);
    } else if (!all.empty()) {
        printText(all, options);
    }
    return any ? steps.code() : ExitCode::kNothing;
}

}  // namespace agent
