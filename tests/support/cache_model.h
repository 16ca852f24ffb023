// Operations on a cache beside the same ones on a plain map. Which ones, somebody else decides: a
// random number generator, or the bytes of a fuzzer.
#ifndef TESTS_CACHE_MODEL_H
#define TESTS_CACHE_MODEL_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kscache.h"

class CacheModel {
  public:
    /// A number below the limit.
    using Source = std::function<uint64_t(uint64_t limit)>;
    enum class Repeats : uint8_t { Told, NotTold };  ///< whether the cache has a callback

    /// `path` is for a file of its own. `pagesAscend`: as they do unless somebody places them.
    CacheModel(Source below, std::string path, uint32_t bits, Repeats repeats,
               bool pagesAscend = true);
    ~CacheModel();
    CacheModel(const CacheModel&) = delete;
    CacheModel& operator=(const CacheModel&) = delete;

    /// Does one operation. The cheap ones leave it at what the call says; true after one that
    /// changes much, so that all is worth a look.
    bool step();

    /// How many keys were added, looked up or deleted.
    uint64_t operations() const { return operations_; }

    /// Every slot that counts as used holds an entry of the model, and pages, trees, free list and
    /// counters agree.
    void compareAll() const;

  private:
    using Bytes = std::vector<uint8_t>;
    using Identity = std::pair<uint8_t, Bytes>;  // type, and as many bytes as the type counts
    struct Entry {
        uint64_t value;
        uint64_t refCount;
    };
    struct Operation {
        uint64_t share;
        void (CacheModel::*work)();
        bool changesMuch;
    };
    static const Operation kOperations[];

    Bytes randomKey();
    KSCacheKey randomCacheKey();
    static Identity identity(const KSCacheKey& key);
    uint32_t added(const KSCacheKey& key, uint64_t value, bool withArg);
    uint32_t found(const KSCacheKey& key, bool counted, uint64_t& value);
    static int onEntry(KSCache* cache, KSCacheNode* node, uint64_t value, int, void* arg);

    void add();
    void lookup();
    void remove();
    void batch();
    void walk();
    void restart();
    void limit();
    void reclaim();
    void reset();
    void forgetCountsWithLastPage(bool hadPages);

    Source below_;
    std::string path_;
    bool pagesAscend_;
    bool tellsRepeats_;
    KSCache* cache_;
    std::map<Identity, Entry> model_;
    std::set<Identity> met_;
    std::deque<Bytes> keys_;
    uint64_t operations_ = 0;
    uint64_t lastValue_ = 0;
    uint64_t hits_ = 0, misses_ = 0, callbacks_ = 0, expectedCallbacks_ = 0;
};

#endif
