// What verify found, and its report for people and as JSON.
#ifndef TOOLS_AGENT_VERIFY_REPORT_H
#define TOOLS_AGENT_VERIFY_REPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/agent/query.h"

namespace agent {

enum class Finding { kSame, kChanged, kGone, kNew, kNotCompared };

struct Difference {
    std::string path;
    Finding finding = Finding::kSame;
    std::string detail;  ///< empty where the finding says it all
};

struct VerifyResult {
    ImageRecord image;
    uint64_t same = 0;
    uint64_t changed = 0;
    uint64_t gone = 0;
    uint64_t added = 0;
    uint64_t notCompared = 0;
    uint64_t bytes = 0;  ///< that were read
    bool interrupted = false;
    std::vector<Difference> differences;  ///< all findings except "same"

    void add(Difference&& difference);
};

/// Prints the differences, sorted by path, and the totals.
void printVerify(VerifyResult& result, bool json);

}  // namespace agent

#endif
