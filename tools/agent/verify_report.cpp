#include "tools/agent/verify_report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

/// A row for each finding, in the order of the enumerators.
struct CountRow {
    const char* word;
    const char* member;
    uint64_t VerifyResult::*count;
};
constexpr std::array<CountRow, 5> kCountRows{{
    {"same", "same", &VerifyResult::same},
    {"changed", "changed", &VerifyResult::changed},
    {"gone", "gone", &VerifyResult::gone},
    {"new", "new", &VerifyResult::added},
    {"not compared", "notCompared", &VerifyResult::notCompared},
}};

const CountRow& rowOf(Finding finding) {
    return kCountRows[static_cast<size_t>(finding)];
}

void printText(const VerifyResult& result) {
    for (const Difference& d : result.differences) {
        if (d.finding == Finding::kNotCompared) continue;  // reported on stderr
        printf("%-7s  %s%s\n", rowOf(d.finding).word, tool::printable(d.path).c_str(),
               d.detail.empty() ? "" : (": " + tool::printable(d.detail)).c_str());
    }
    for (const CountRow& row : kCountRows)
        printf("%s %s, ", tool::humanCount(result.*row.count).c_str(), row.word);
    printf("%s read%s\n", tool::humanBytes(result.bytes).c_str(),
           result.interrupted ? "; interrupted" : "");
}

void printJson(const VerifyResult& result) {
    const ImageRecord& image = result.image;
    nlohmann::ordered_json report{{"image", image.name.image},
                                  {"client", image.name.client},
                                  {"policy", image.name.policy},
                                  {"time", tool::isoTime(image.time)}};
    for (const CountRow& row : kCountRows)
        report[row.member] = result.*row.count;
    report["bytesRead"] = result.bytes;
    report["interrupted"] = result.interrupted;
    auto& list = report["differences"] = nlohmann::ordered_json::array();
    for (const Difference& d : result.differences) {
        nlohmann::ordered_json object{{"path", d.path}, {"finding", rowOf(d.finding).member}};
        if (!d.detail.empty()) object["detail"] = d.detail;
        list.push_back(std::move(object));
    }
    tool::printJson(report, 2);
}

}  // namespace

void VerifyResult::add(Difference&& difference) {
    ++(this->*rowOf(difference.finding).count);
    if (difference.finding != Finding::kSame) differences.push_back(std::move(difference));
}

void printVerify(VerifyResult& result, bool json) {
    std::sort(result.differences.begin(), result.differences.end(),
              [](const Difference& a, const Difference& b) { return a.path < b.path; });
    if (json) {
        printJson(result);
    } else {
        printText(result);
    }
}

}  // namespace agent
