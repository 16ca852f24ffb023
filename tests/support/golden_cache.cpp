// The commands of transcripts about caches.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "kscache/kscache_hold.h"
#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"
#include "tests/support/golden.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

using namespace golden;
using operations::number;
using operations::withSlot;

static unsigned repeats =
    0;  ///< calls of the duplicate callback, all of which get this as argument

namespace operations {

template <>
struct Argument<KSCache*> : Input {
    static constexpr char kKind = ' ';
    explicit Argument(Call& call) : cache(call.objects.noHandle ? nullptr : call.objects.cache) {}
    KSCache* get() const { return cache; }
    KSCache* cache;
};
template <>
struct Argument<const KSCache*> : Argument<KSCache*> {
    using Argument<KSCache*>::Argument;
};

/// A key from hexadecimal digits, filled up with zeros.
template <>
struct Argument<const void*> : Input {
    static constexpr char kKind = 'k';
    explicit Argument(Call& call) : Argument(call.word()) {}
    explicit Argument(const std::string& hex) : isGiven(hex != "null") {
        for (size_t i = 0; isGiven && i + 1 < hex.size(); i += 2)
            key.at(i / 2) = static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16));
    }
    const void* get() const { return isGiven ? key.data() : nullptr; }
    std::array<uint8_t, 32> key{};
    bool isGiven;
};

template <>
struct Argument<void*> : Input {
    static constexpr char kKind = 'o';
    explicit Argument(Call& call) : isGiven(call.isGiven()) {}
    void* get() const { return isGiven ? &repeats : nullptr; }
    bool isGiven;
};

template <>
struct Argument<KSCacheStatsRecord*> : Output<KSCacheStatsRecord> {
    explicit Argument(Call& call) : Output(call, {}) {}
    void show(Call& call) const {
        std::ostringstream text;
        text << "size " << value.cacheSize << ", items " << value.cachedItems << ", hits "
             << value.hits << ", misses " << value.misses << ", free " << value.freeListCount
             << ", pages " << value.pageCount << ", available " << value.nodesAvailable << ", lock "
             << value.lockPages << ", area " << value.areaSize << ", bits " << value.bits
             << ", node " << value.nodeSize;
        call.show(isGiven, text.str());
    }
};

/// The stream of a report. Addresses are left out and lines that repeat counted.
template <>
struct Argument<FILE*> {
    static constexpr char kKind = ' ';
    explicit Argument(Call&) {}
    FILE* get() { return stream = open_memstream(&text, &size); }
    void show(Call&) {
        fclose(stream);
        std::string plain = text;
        free(text);
        for (size_t at = 0; (at = plain.find("0x", at)) != std::string::npos; ++at)
            plain.replace(at, plain.find_first_not_of("0123456789abcdef", at + 2) - at, "@");
        std::istringstream lines(plain);
        std::string out, last;
        int times = 1;
        for (std::string line; std::getline(lines, line); last = line) {
            times = line == last ? times + 1 : 1;
            if (times > 1) out.resize(out.rfind("\n| ", out.size() - 2) + 1);
            out += "| " + line + (times > 1 ? "   x " + std::to_string(times) : "") + "\n";
        }
        scripted::record(out.empty() ? "| nothing" : out.substr(0, out.size() - 1));
    }
    FILE* stream = nullptr;
    char* text = nullptr;
    size_t size = 0;
};

}  // namespace operations

namespace {

using operations::bind;

std::string create(Objects& objects, const Words& w) {
    KSCacheDestroy(objects.cache);
    scripted::forgetPointers();
    const auto count = [](void*, void* arg) { ++*static_cast<unsigned*>(arg); };
    repeats = 0;
    objects.cache =
        KSCacheCreate(static_cast<uint32_t>(number(w[1])), static_cast<uint32_t>(number(w[2])),
                      static_cast<uint32_t>(number(w[3])), count, &repeats);
    return withSlot(objects.cache != nullptr ? "a cache" : "no cache");
}

/// One call for each of a range of keys that are made from numbers; counts the statuses.
std::string range(Objects& objects, const Words& w) {
    std::map<uint32_t, int> results;
    for (auto i = static_cast<uint32_t>(number(w[1])); i < number(w[2]); ++i) {
        uint32_t words[8] = {i, 0, 0, i};
        ++results[w[0] == "fill"   ? KSCacheAdd(objects.cache, words, 3, i, nullptr)
                  : w[0] == "find" ? KSCacheExists(objects.cache, words, 3, nullptr)
                                   : KSCacheDelete(objects.cache, words, 3)];
    }
    std::string text;
    for (const auto& [result, times] : results) {
        text +=
            (text.empty() ? "" : ", ") + std::to_string(times) + " times " + std::to_string(result);
    }
    return withSlot(text);
}

/// The deed of a walk's callback beside counting.
struct Walk {
    std::string deed;
    unsigned calls = 0;
    std::string results;
};
int onEntry(KSCache* cache, KSCacheNode* node, uint64_t value, int reserved, void* arg) {
    auto* walk = static_cast<Walk*>(arg);
    EXPECT_TRUE(value == node->value && reserved == 0);
    if (++walk->calls > 1) return 0;
    if (walk->deed == "nest") KSCacheIterate(cache, onEntry, walk);
    if (walk->deed != "nest" && walk->deed != "check") return walk->deed == "stop" ? 1 : 0;
    KSCacheReclaim(cache);
    for (const auto& result : {uint64_t{KSCacheCheck(cache, 1)}, KSCachePrune(cache)})
        walk->results += ", " + withSlot(std::to_string(result));
    return 0;
}
std::string iterate(Objects& objects, const Words& w) {
    Walk walk{w[1], 0, {}};
    const uint32_t result = KSCacheIterate(objects.noHandle ? nullptr : objects.cache,
                                           w[1] == "null" ? nullptr : onEntry, &walk);
    return withSlot(std::to_string(result)) + ", calls " + std::to_string(walk.calls) +
           walk.results;
}

/// So many calls with the scenario's cursor, or until one meets no entry.
std::string next(Objects& objects, const Words& w) {
    const KSCacheNode* node = nullptr;
    uint32_t result = 0;
    unsigned met = 0;
    if (w[1] == "first") objects.place = {};
    for (unsigned long left = number(w[2]); left > 0 && result == 0; --left) {
        result = KSCacheNext(objects.noHandle ? nullptr : objects.cache,
                             w[1] == "null" ? nullptr : &objects.place,
                             w[1] == "nowhere" ? nullptr : &node);
        met += result == 0;
    }
    return withSlot(std::to_string(result)) + ", met " + std::to_string(met);
}

/// A call, and the size of the file that its first word names.
Operation withFile(const Operation& call) {
    return {[=](Objects& objects, const Words& w) {
        const std::string out = call.run(objects, w);
        std::error_code none;
        const auto size = std::filesystem::file_size(w[1], none);
        return out + (none ? ", no file" : ", file " + std::to_string(size));
    }};
}

/// Makes something at a path, or changes the mode of what is there.
void makeFile(Objects&, const Words& w) {
    const std::string& path = w[1];
    const std::string kind = w[2].substr(0, w[2].find('='));
    const std::string value = w[2].substr(std::min(w[2].size(), kind.size() + 1));
    if (kind == "mode") {
        chmod(path.c_str(), static_cast<mode_t>(strtoul(value.c_str(), nullptr, 8)));
    } else if (kind == "pipe") {
        mkfifo(path.c_str(), 0600);
    } else if (kind == "folder") {
        std::filesystem::create_directory(path);
    } else if (kind == "link") {
        std::filesystem::create_symlink(value, path);
    } else {
        std::ofstream(path) << value;
    }
}

std::string look(Objects&, const Words& w) {
    struct stat found {};
    if (lstat(w[1].c_str(), &found) != 0) return "nothing";
    char mode[20];
    snprintf(mode, sizeof mode, "mode %o, ", found.st_mode);
    return mode + std::to_string(S_ISREG(found.st_mode) ? found.st_size : 0) + " bytes";
}

}  // namespace

const Operations& golden::cacheCommands() {
    static const Operations kRows = {
        {"zero", quietly([](Objects&, const Words& w) {
             calls::place(w[1] == "on" ? calls::Placement::kAtZero : calls::Placement::kAsAsked);
         })},
        {"handle", quietly([](Objects& objects, const Words& w) {
             objects.noHandle = w[1] == "null";
             if (objects.hold != nullptr)
                 objects.hold->magic = w[1] == "bad" ? 0xBAD : kspool::kHoldMagic;
             else if (objects.cache != nullptr)
                 objects.cache->magic = w[1] == "bad" ? 0xBAD : kspool::kCacheMagic;
         })},
        {"lose", quietly([](Objects& objects, const Words& w) {
             const operations::Argument<const void*> key(w[1]);
             const auto type = static_cast<uint32_t>(number(w[2]));
             *findLink(objects.cache, kspool::makeKey(key.get(), type)) = nullptr;
         })},
        {"fill", {range}},
        {"find", {range}},
        {"drop", {range}},
        {"KSCacheCreate", {create}},
        {"KSCacheDestroy", {[](Objects& objects, const Words&) {
             KSCacheDestroy(std::exchange(objects.cache, nullptr));
             return withSlot(std::to_string(calls::live()) + " left");
         }}},
        {"KSCacheAdd", {[](Objects& objects, const Words& w) {
             static const Operation kAdd = bind(KSCacheAdd);
             const std::string outcome = kAdd.run(objects, w);
             return outcome + ", callbacks " + std::to_string(repeats);
         }}},
        {"KSCacheIterate", {iterate}},
        {"KSCacheNext", {next}},
        {"KSCacheSave", withFile(bind(KSCacheSave, "count"))},
        {"KSCacheLoad", withFile(bind(KSCacheLoad, "count"))},
        {"KSCacheReplaceFile", bind(KSCacheReplaceFile, "count")},
        {"KSCacheHoldFile", {[](Objects& objects, const Words& w) {
             KSCacheHold** hold = w[2] == "null" ? nullptr : &objects.hold;
             return withSlot(std::to_string(KSCacheHoldFile(operations::Text(w[1]).get(), hold)));
         }}},
        {"KSCacheReleaseFile", {[](Objects& objects, const Words&) {
             const bool isOne =
                 objects.hold != nullptr && objects.hold->magic == kspool::kHoldMagic;
             KSCacheReleaseFile(objects.hold);
             if (isOne) objects.hold = nullptr;
             return withSlot("done");
         }}},
        {"file", quietly(makeFile)},
        {"look", {look}},
        {"KSCacheAreaFor", bind(KSCacheAreaFor)},
        {"KSCacheBitsFor", bind(KSCacheBitsFor)},
        {"KSCacheCheck", bind(KSCacheCheck)},
        {"KSCacheDelete", bind(KSCacheDelete)},
        {"KSCacheDump", bind(KSCacheDump)},
        {"KSCacheDumpRaw", bind(KSCacheDumpRaw)},
        {"KSCacheDumpSorted", bind(KSCacheDumpSorted)},
        {"KSCacheExists", bind(KSCacheExists, "value")},
        {"KSCacheFetch", bind(KSCacheFetch, "value")},
        {"KSCachePrune", bind(KSCachePrune)},
        {"KSCacheReclaim", bind(KSCacheReclaim)},
        {"KSCacheReset", bind(KSCacheReset)},
        {"KSCacheStats", bind(KSCacheStats)},
        {"_ksCacheDump", bind(_ksCacheDump)},
    };
    return kRows;
}
