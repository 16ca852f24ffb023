// stat and verify: what can be said about cache files without loading them.
#include <algorithm>
#include <cstdio>

#include "platform/status.h"
#include "tools/cache/commands.h"
#include "tools/cache/contents.h"
#include "tools/cache/file.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

using nlohmann::ordered_json;
using tool::humanBytes;
using tool::humanCount;

constexpr uint64_t kRootBytes = 8;

const char* typeName(size_t type) {
    switch (type) {
        case CR_FP_MD5:
            return "MD5";
        case CR_FP_SHA1_16:
            return "SHA-1, 16 bytes";
        case CR_FP_SHA256:
            return "SHA-256";
        default:
            return "unknown";
    }
}

/// The figures that both forms of the report need.
struct Figures {
    explicit Figures(const FileReport& file)
        : settings(tool::settingsFor(file.records)),
          pageSlots(roundedArea(settings.areaSize)),
          pages(pagesFor(file.records, pageSlots)),
          pageBytes(pages * pageSlots * sizeof(KSCacheNode)),
          roots(uint64_t{1} << settings.bits) {}

    tool::CacheSettings settings;
    uint64_t pageSlots;
    uint64_t pages;
    uint64_t pageBytes;
    uint64_t roots;
};

void printTypes(const FileReport& file) {
    for (size_t type = 0; type < file.recordsOfType.size(); ++type) {
        if (file.recordsOfType[type] == 0) continue;
        printf("  type %-3zu     %15s   %s\n", type, humanCount(file.recordsOfType[type]).c_str(),
               typeName(type));
    }
}

void printStat(const FileReport& file) {
    const Figures f(file);
    printf("File           %s\n", file.name.c_str());
    printf("Size           %s, %s bytes\n", humanBytes(file.size).c_str(),
           humanCount(file.size).c_str());
    printf("Header         %llu bytes: type %u, checksum 0x%08x\n",
           static_cast<unsigned long long>(file.headerSize), file.header.type, file.checksum);
    printf("Records        %15s   of %zu bytes\n", humanCount(file.records).c_str(), kRecordSize);
    printTypes(file);
    printf("Cache memory   %s: %s pages of %s slots of %zu bytes, and %s roots of %u bytes\n",
           humanBytes(f.pageBytes + f.roots * kRootBytes).c_str(), humanCount(f.pages).c_str(),
           humanCount(f.pageSlots).c_str(), sizeof(KSCacheNode), humanCount(f.roots).c_str(),
           static_cast<unsigned>(kRootBytes));
    printf("Settings       areaSize %u, bits %u\n", f.settings.areaSize, f.settings.bits);
}

void printStatJson(const FileReport& file) {
    const Figures f(file);
    auto types = ordered_json::array();
    for (size_t type = 0; type < file.recordsOfType.size(); ++type) {
        if (file.recordsOfType[type] == 0) continue;
        types.push_back(
            {{"type", type}, {"name", typeName(type)}, {"records", file.recordsOfType[type]}});
    }
    tool::printJson(
        {{"file", file.path},
         {"size", file.size},
         {"header",
          {{"size", file.headerSize}, {"type", file.header.type}, {"checksum", file.header.value}}},
         {"records", file.records},
         {"types", types},
         {"memory",
          {{"pages", f.pages},
           {"pageSlots", f.pageSlots},
           {"pageBytes", f.pageBytes},
           {"rootBytes", f.roots * kRootBytes}}},
         {"settings", {{"areaSize", f.settings.areaSize}, {"bits", f.settings.bits}}},
         {"damage", damageJson(file)}},
        2);
}

struct Verdict {
    const char* state;
    ExitCode code;
};

Verdict judge(const FileReport& file) {
    if (file.trouble) return {"unreadable", ExitCode::kTrouble};
    if (!file.damage.empty()) return {"damaged", ExitCode::kNo};
    return {"good", ExitCode::kOk};
}

}  // namespace

ExitCode stat(const Options& options) {
    const FileReport file = inspectAndReport(options.files[0]);
    if (const ExitCode code = loadingCode(file); code != ExitCode::kOk) return code;
    (options.json ? printStatJson : printStat)(file);
    return ExitCode::kOk;
}

ExitCode verify(const Options& options) {
    ExitCode code = ExitCode::kOk;
    auto list = ordered_json::array();
    for (const std::string& path : options.files) {
        const FileReport file = inspectAndReport(path);
        const Verdict verdict = judge(file);
        code = std::max(code, verdict.code);
        if (options.json) {
            list.push_back({{"file", file.path},
                            {"state", verdict.state},
                            {"records", file.records},
                            {"trouble", file.trouble.value_or("")},
                            {"damage", damageJson(file)}});
        } else if (verdict.code == ExitCode::kOk) {
            printf("%s: good, %s records\n", file.name.c_str(), humanCount(file.records).c_str());
        } else {
            printf("%s: %s\n", file.name.c_str(), verdict.state);
        }
    }
    if (options.json) tool::printJson(list, 2);
    return code;
}

}  // namespace cache
