// Operations on a cache beside the same ones on a plain map. The caller decides which: a random
// number generator, the bytes of a fuzzer, or a script while calls of the system fail.
//
// Invariants, which compareAll() checks:
//  1. The used slots of the cache are the entries of the map, with their values and counts.
//  2. The counters of hits, misses and callbacks are those of the calls made.
//  3. Pages, trees and free list are sound, as cache_invariants.h has it.
// The first disagreement ends the program with the operation, the key and both values.
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
    struct Setup {
        uint32_t bits = 1;
        bool tellsRepeats = false;  ///< whether the cache has a callback
        bool pagesAscend = true;    ///< false where a test places them
        uint32_t areaSize = 0, lockPages = 0;
        std::string name = {};  ///< printed with a disagreement: the seed, or what fails
        /// Whether a call of the system was made to fail; adds, saves and loads may then fail too.
        std::function<bool()> failed = [] { return false; };
    };

    /// `path` is for a file of its own.
    CacheModel(
        Setup setup, std::string path, Source below = [](uint64_t) { return 0; });
    ~CacheModel();
    CacheModel(const CacheModel&) = delete;
    CacheModel& operator=(const CacheModel&) = delete;

    /// False when there was no memory for a cache.
    bool exists() const { return cache_ != nullptr; }
    KSCache* cache() const { return cache_; }

    /// Does one random operation. The cheap ones are checked by what the call returns; true after
    /// one that changes much and is worth a compareAll().
    bool step();

    /// Adds the keys made from the numbers below `count`. In a cache of one bit they make one tree
    /// as deep as it has entries; `kSwapped` gives each second one a node below it.
    enum Order : uint8_t { kInOrder, kSwapped, kBatch };
    void fill(uint32_t count, Order order = kInOrder);
    /// Deletes two of three of these keys.
    void drop(uint32_t count);
    void walk();
    void restart();
    void reclaim();
    void reset();
    /// The sorted report is complete whatever memory there is, and in order in a cache of one bit.
    void sortedReport();

    /// The number of keys added, looked up or deleted at random.
    uint64_t operations() const { return operations_; }

    void compareAll() const;

  private:
    using Bytes = std::vector<uint8_t>;
    using Identity = std::pair<uint8_t, Bytes>;  // type, and as many bytes as the type counts
    struct Entry {
        uint64_t value;
        uint64_t refCount;
    };
    struct Operation {
        const char* name;
        uint64_t share;
        void (CacheModel::*work)();
        bool changesMuch;
    };
    static const Operation kOperations[];

    Bytes randomKey();
    KSCacheKey randomCacheKey();
    KSCacheKey numberedKey(uint32_t number);
    static Identity identity(const KSCacheKey& key);
    bool mayLack(uint32_t status) const;
    void same(const char* what, uint64_t got, uint64_t expected) const;
    void addOne(const KSCacheKey& key, uint64_t value, void* arg);
    bool noteAdd(const KSCacheKey& key, uint64_t value, bool withArg, const uint32_t* status);
    void noteLookup(const KSCacheKey& key, bool counted, const uint32_t* status, uint64_t before,
                    const uint64_t* value);
    void addAll(const std::vector<KSCacheKey>& keys, const std::vector<uint64_t>& values,
                void* const* args, uint32_t* statuses);
    void removeOne(const KSCacheKey& key);
    static int onEntry(KSCache* cache, KSCacheNode* node, uint64_t value, int, void* arg);

    uint32_t walkOn(KSCacheCursor& cursor, size_t most);
    void walkByCursor();
    void add();
    void lookup();
    void remove();
    void batch();
    void limit();
    void forgetCountsWithLastPage(bool hadPages);

    Setup setup_;
    Source below_;
    std::string path_;
    KSCache* cache_;
    KSCacheCursor standing_{};  // of a walk that goes on over many steps
    std::map<Identity, Entry> model_;
    std::set<Identity> met_;
    std::deque<Bytes> keys_;
    const char* operation_ = "create";
    mutable KSCacheKey at_{};  ///< the key that is being compared, if any
    uint64_t steps_ = 0, operations_ = 0;
    uint64_t lastValue_ = 0;
    uint64_t hits_ = 0, misses_ = 0, callbacks_ = 0, expectedCallbacks_ = 0;
};

#endif
