// The commands of transcripts about caches.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sstream>

#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"
#include "platform/status.h"
#include "tests/support/golden.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace golden {
namespace {

class CacheScene : public Scene {
  public:
    CacheScene();
    ~CacheScene() override { KSCacheDestroy(cache_); }
    CacheScene(const CacheScene&) = delete;
    CacheScene& operator=(const CacheScene&) = delete;

  private:
    static void count(void*, void* arg) { ++*static_cast<unsigned*>(arg); }

    KSCache* handle() { return handleIs_ == "null" ? nullptr : cache_; }

    /// Hexadecimal digits, filled up with zeros; "null" for no key.
    const void* key(const std::string& hex) {
        if (hex == "null") return nullptr;
        memset(key_, 0, sizeof key_);
        for (size_t i = 0; i + 1 < hex.size(); i += 2) {
            key_[i / 2] = static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16));
        }
        return key_;
    }

    std::string lookup(const Words& w, bool counted) {
        uint64_t value = 0;
        const void* wanted = key(w[1]);
        uint64_t* out = w[3] == "novalue" ? nullptr : &value;
        const uint32_t result = counted ? KSCacheExists(handle(), wanted, number(w[2]), out)
                                        : KSCacheFetch(handle(), wanted, number(w[2]), out);
        return status(result) + (result == 0 ? ", value " + std::to_string(value) : "");
    }

    /// One call for each of a range of keys that are made from numbers; counts the statuses.
    std::string range(const Words& w) {
        std::map<uint32_t, int> results;
        for (uint32_t i = number(w[1]); i < number(w[2]); ++i) {
            uint32_t words[8] = {i, 0, 0, i};
            ++results[w[0] == "fill"   ? KSCacheAdd(cache_, words, 3, i, nullptr)
                      : w[0] == "find" ? KSCacheExists(cache_, words, 3, nullptr)
                                       : KSCacheDelete(cache_, words, 3)];
        }
        std::string text;
        for (const auto& [result, times] : results) {
            text += (text.empty() ? "" : ", ") + std::to_string(times) + " times " +
                    std::to_string(result);
        }
        return withSlot(text);
    }

    /// What the callback of a walk does beside counting.
    struct Walk {
        std::string deed;
        unsigned calls = 0;
        std::string results;
    };
    static int onEntry(KSCache* cache, KSCacheNode* node, uint64_t value, int reserved, void* arg) {
        auto* walk = static_cast<Walk*>(arg);
        EXPECT_TRUE(value == node->value && reserved == 0);
        if (++walk->calls == 1) {
            if (walk->deed == "nest") KSCacheIterate(cache, onEntry, walk);
            if (walk->deed != "nest" && walk->deed != "check") return walk->deed == "stop" ? 1 : 0;
            KSCacheReclaim(cache);
            for (const auto& result : {uint64_t{KSCacheCheck(cache, 1)}, KSCachePrune(cache)})
                walk->results += ", " + withSlot(std::to_string(result));
        }
        return 0;
    }
    std::string walk(const Words& w) {
        Walk walk{w[1], 0, {}};
        const uint32_t result = KSCacheIterate(handle(), w[1] == "null" ? nullptr : onEntry, &walk);
        return status(result) + ", calls " + std::to_string(walk.calls) + walk.results;
    }

    std::string file(const Words& w) {
        uint64_t records = 99;
        uint64_t* out = w[2] == "nocount" ? nullptr : &records;
        const char* path = w[1] == "null" ? nullptr : w[1].c_str();
        const uint32_t result =
            w[0] == "save" ? KSCacheSave(handle(), path, out) : KSCacheLoad(handle(), path, out);
        std::error_code none;
        const auto size = std::filesystem::file_size(w[1], none);
        return status(result) + ", count " + std::to_string(records) +
               (none ? ", no file" : ", file " + std::to_string(size));
    }

    /// A report, with addresses left out and lines that repeat counted.
    std::string report(const Words& w) {
        char* text = nullptr;
        size_t size = 0;
        FILE* stream = open_memstream(&text, &size);
        const std::map<std::string, void (*)(FILE*, const KSCache*)> kinds = {
            {"dump", KSCacheDump}, {"sorted", KSCacheDumpSorted}, {"raw", KSCacheDumpRaw}};
        kinds.at(w[0])(stream, handle());
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
        return {};
    }

    std::string stats(const Words& w) {
        KSCacheStatsRecord s{};
        const uint32_t result = KSCacheStats(handle(), w[1] == "null" ? nullptr : &s);
        if (result != 0 || w[1] == "null") return status(result);
        std::ostringstream text;
        text << "size " << s.cacheSize << ", items " << s.cachedItems << ", hits " << s.hits
             << ", misses " << s.misses << ", free " << s.freeListCount << ", pages " << s.pageCount
             << ", available " << s.nodesAvailable << ", lock " << s.lockPages << ", area "
             << s.areaSize << ", bits " << s.bits << ", node " << s.nodeSize;
        return text.str();
    }

    KSCache* cache_ = nullptr;
    std::string handleIs_;
    uint8_t key_[32] = {};
    unsigned callbacks_ = 0;
};

CacheScene::CacheScene() {
    verbs = {
        {"zero",
         [](const Words& w) {
             calls::place(w[1] == "on" ? calls::Placement::kAtZero : calls::Placement::kAsAsked);
             return std::string();
         }},
        {"create",
         [this](const Words& w) {
             KSCacheDestroy(cache_);
             scripted::forgetPointers();
             cache_ = KSCacheCreate(number(w[1]), number(w[2]), number(w[3]), count, &callbacks_);
             return withSlot(cache_ != nullptr ? "a cache" : "no cache");
         }},
        {"reset",
         [this](const Words&) {
             KSCacheReset(cache_);
             return withSlot("reset");
         }},
        {"destroy",
         [this](const Words&) {
             KSCacheDestroy(std::exchange(cache_, nullptr));
             return withSlot(std::to_string(calls::live()) + " left");
         }},
        {"handle",
         [this](const Words& w) {
             handleIs_ = w[1];
             cache_->magic = w[1] == "bad" ? 0xBAD : kspool::kCacheMagic;
             return std::string();
         }},
        {"add",
         [this](const Words& w) {
             return status(KSCacheAdd(handle(), key(w[1]), number(w[2]), number(w[3]),
                                      w[4] == "arg" ? key_ : nullptr)) +
                    ", callbacks " + std::to_string(callbacks_);
         }},
        {"fill", [this](const Words& w) { return range(w); }},
        {"find", [this](const Words& w) { return range(w); }},
        {"drop", [this](const Words& w) { return range(w); }},
        {"delete",
         [this](const Words& w) {
             return status(KSCacheDelete(handle(), key(w[1]), number(w[2])));
         }},
        {"lose",
         [this](const Words& w) {
             *findLink(cache_, kspool::makeKey(key(w[1]), number(w[2]))) = nullptr;
             return std::string();
         }},
        {"walk", [this](const Words& w) { return walk(w); }},
        {"save", [this](const Words& w) { return file(w); }},
        {"load", [this](const Words& w) { return file(w); }},
        {"check", [this](const Words& w) { return status(KSCacheCheck(handle(), number(w[1]))); }},
        {"prune",
         [this](const Words&) { return withSlot(std::to_string(KSCachePrune(handle()))); }},
        {"reclaim",
         [this](const Words&) {
             KSCacheReclaim(handle());
             return withSlot("reclaimed");
         }},
        {"dump", [this](const Words& w) { return report(w); }},
        {"sorted", [this](const Words& w) { return report(w); }},
        {"raw", [this](const Words& w) { return report(w); }},
        {"summary",
         [this](const Words& w) {
             _ksCacheDump(handle(), w[1].c_str());
             return withSlot("summary");
         }},
        {"exists", [this](const Words& w) { return lookup(w, true); }},
        {"fetch", [this](const Words& w) { return lookup(w, false); }},
        {"stats", [this](const Words& w) { return stats(w); }},
    };
}

}  // namespace

std::unique_ptr<Scene> cacheScene() {
    return std::make_unique<CacheScene>();
}

}  // namespace golden
