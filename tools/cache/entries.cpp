// dump and diff: the entries of cache files.
#include <cinttypes>
#include <cstdio>

#include "tools/cache/commands.h"
#include "tools/cache/contents.h"
#include "tools/cache/file.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace cache {
namespace {

using nlohmann::ordered_json;
using tool::digestText;
using tool::humanCount;
using tool::settingsFor;

ordered_json entryJson(const KSCacheNode& entry) {
    return {{"fingerprint", digestText(entry.fingerprint, entry.type)}, {"type", entry.type}};
}

ordered_json entryJson(const KSCacheNode& entry, uint64_t value) {
    ordered_json json = entryJson(entry);
    json["value"] = value;
    return json;
}

void dumpJson(KSCache* cache) {
    forEachEntry(cache, [](const KSCacheNode& entry) {
        tool::printJson(entryJson(entry, entry.value), -1);
        return ferror(stdout) == 0;
    });
}

/// The differences: printed as they are found, or gathered for one JSON object.
class Differences {
  public:
    explicit Differences(bool json) : json_(json) {}

    /// Notes an entry that is in only one of the files.
    void note(char sign, const KSCacheNode& entry) {
        List& list = sign == '+' ? added_ : gone_;
        ++list.count;
        if (json_) {
            list.entries.push_back(entryJson(entry, entry.value));
        } else {
            printf("%c %u %s %" PRIu64 "\n", sign, entry.type,
                   digestText(entry.fingerprint, entry.type).c_str(), entry.value);
        }
    }
    void noteChanged(const KSCacheNode& entry, uint64_t newValue) {
        ++changed_.count;
        if (json_) {
            ordered_json json = entryJson(entry);
            json["old"] = entry.value;
            json["new"] = newValue;
            changed_.entries.push_back(std::move(json));
        } else {
            printf("~ %u %s %" PRIu64 " -> %" PRIu64 "\n", entry.type,
                   digestText(entry.fingerprint, entry.type).c_str(), entry.value, newValue);
        }
    }
    void noteSame() { ++same_; }

    bool none() const { return added_.count + gone_.count + changed_.count == 0; }

    void printSummary() const {
        if (json_) {
            tool::printJson({{"counts",
                              {{"added", added_.count},
                               {"gone", gone_.count},
                               {"changed", changed_.count},
                               {"same", same_}}},
                             {"added", added_.entries},
                             {"gone", gone_.entries},
                             {"changed", changed_.entries}},
                            2);
        } else {
            printf("%s added, %s gone, %s changed, %s the same\n", humanCount(added_.count).c_str(),
                   humanCount(gone_.count).c_str(), humanCount(changed_.count).c_str(),
                   humanCount(same_).c_str());
        }
    }

  private:
    struct List {
        uint64_t count = 0;
        ordered_json entries = ordered_json::array();
    };

    bool json_;
    uint64_t same_ = 0;
    List added_;
    List gone_;
    List changed_;
};

/// Compares as the cache does: only the bytes that the type of the digest uses.
void compare(KSCache* first, KSCache* second, Differences& differences) {
    forEachEntry(first, [&](const KSCacheNode& entry) {
        uint64_t value = 0;
        if (KSCacheFetch(second, entry.fingerprint, entry.type, &value) != CR_STATUS_OK) {
            differences.note('-', entry);
        } else if (value != entry.value) {
            differences.noteChanged(entry, value);
        } else {
            differences.noteSame();
        }
        return true;
    });
    forEachEntry(second, [&](const KSCacheNode& entry) {
        if (KSCacheFetch(first, entry.fingerprint, entry.type, nullptr) != CR_STATUS_OK)
            differences.note('+', entry);
        return true;
    });
}

}  // namespace

ExitCode dump(const Options& options) {
    const FileReport file = inspectAndReport(options.files[0]);
    if (const ExitCode code = loadingCode(file); code != ExitCode::kOk) return code;
    const Loaded loaded = load(file, settingsFor(file.records));
    KSCache* cache = loaded.cache.get();
    if (options.json) {
        dumpJson(cache);
    } else if (options.sorted) {
        KSCacheDumpSorted(stdout, cache);
    } else if (options.raw) {
        KSCacheDumpRaw(stdout, cache);
    } else {
        KSCacheDump(stdout, cache);
    }
    return ExitCode::kOk;
}

ExitCode diff(const Options& options) {
    const FileReport firstFile = inspectAndReport(options.files[0]);
    const FileReport secondFile = inspectAndReport(options.files[1]);
    for (const FileReport* file : {&firstFile, &secondFile}) {
        if (loadingCode(*file) != ExitCode::kOk) return ExitCode::kTrouble;
    }
    const Loaded first = load(firstFile, settingsFor(firstFile.records));
    const Loaded second = load(secondFile, settingsFor(secondFile.records));
    Differences differences(options.json);
    compare(first.cache.get(), second.cache.get(), differences);
    differences.printSummary();
    return differences.none() ? ExitCode::kOk : ExitCode::kNo;
}

}  // namespace cache
