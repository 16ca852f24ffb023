// The tables that are compared, the cache and other hash tables, behind the same three calls: add,
// exists (counted where the table counts) and fetch.
#ifndef BENCH_TABLES_H
#define BENCH_TABLES_H

#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <array>
#include <boost/unordered_map.hpp>
#include <cstdint>
#include <cstring>
#include <sparsehash/dense_hash_map>
#include <sparsehash/sparse_hash_map>
#include <unordered_map>

#include "kscache.h"
#include "platform/status.h"

namespace bench {

using Digest = std::array<uint8_t, 32>;

/// Keys of one call; tables without batches look them up one by one.
inline constexpr size_t kStretch = 1000;

/// Digests are random already, so eight of their bytes are as good a hash as any.
struct DigestHash {
    size_t operator()(const Digest& digest) const {
        size_t hash = 0;
        memcpy(&hash, digest.data(), sizeof hash);
        return hash;
    }
};

/// The result of a stretch of lookups.
struct Found {
    size_t count = 0;
    uint64_t values = 0;  ///< sum of the values, so that each value is read
};

/// The area size that the documentation advises: a 200th of the entries, rounded down to whole huge
/// pages when it is as large as one. A huge page has 29,127 slots, the header's included.
inline uint32_t areaFor(size_t entries) {
    constexpr size_t kHugePageSlots = 29'127;
    const size_t slots = entries / 200;
    return static_cast<uint32_t>(slots < kHugePageSlots ? slots
                                                        : slots / kHugePageSlots * kHugePageSlots);
}

/// The cache by its single calls, with the settings that its documentation advises.
class CacheTable {
  public:
    explicit CacheTable(size_t entries)
        : cache_(KSCacheCreate(areaFor(entries), KSCacheBitsFor(entries), 0, nullptr, nullptr)) {}
    ~CacheTable() { KSCacheDestroy(cache_); }
    CacheTable(const CacheTable&) = delete;
    CacheTable& operator=(const CacheTable&) = delete;

    KSCache* handle() { return cache_; }

    size_t add(const Digest* keys, size_t count, uint64_t value) {
        size_t added = 0;
        for (size_t i = 0; i < count; ++i) {
            added += KSCacheAdd(cache_, keys[i].data(), CR_FP_SHA256, value + i, nullptr) ==
                     CR_STATUS_OK;
        }
        return added;
    }
    Found exists(const Digest* keys, size_t count) { return lookup(KSCacheExists, keys, count); }
    Found fetch(const Digest* keys, size_t count) { return lookup(KSCacheFetch, keys, count); }

  private:
    template <typename Call>
    Found lookup(Call call, const Digest* keys, size_t count) {
        Found found;
        for (size_t i = 0; i < count; ++i) {
            uint64_t value = 0;
            found.count += call(cache_, keys[i].data(), CR_FP_SHA256, &value) == CR_STATUS_OK;
            found.values += value;
        }
        return found;
    }

    KSCache* cache_;
};

/// The cache by its batch calls.
class BatchTable {
  public:
    explicit BatchTable(size_t entries) : table_(entries) {}

    KSCache* handle() { return table_.handle(); }

    size_t add(const Digest* keys, size_t count, uint64_t value) {
        for (size_t i = 0; i < count; ++i)
            values_[i] = value + i;
        KSCacheAddBatch(table_.handle(), keysOf(keys, count), values_.data(), nullptr, count,
                        statuses_.data());
        return static_cast<size_t>(
            std::count(statuses_.data(), statuses_.data() + count, CR_STATUS_OK));
    }
    Found exists(const Digest* keys, size_t count) {
        return lookup(KSCacheExistsBatch, keys, count);
    }
    Found fetch(const Digest* keys, size_t count) { return lookup(KSCacheFetchBatch, keys, count); }

  private:
    const KSCacheKey* keysOf(const Digest* keys, size_t count) {
        for (size_t i = 0; i < count; ++i)
            keys_[i] = {keys[i].data(), CR_FP_SHA256};
        return keys_.data();
    }
    template <typename Call>
    Found lookup(Call call, const Digest* keys, size_t count) {
        call(table_.handle(), keysOf(keys, count), count, values_.data(), statuses_.data());
        Found found;
        for (size_t i = 0; i < count; ++i) {
            if (statuses_[i] != CR_STATUS_OK) continue;
            ++found.count;
            found.values += values_[i];
        }
        return found;
    }

    CacheTable table_;
    std::array<KSCacheKey, kStretch> keys_;
    std::array<uint64_t, kStretch> values_;
    std::array<uint32_t, kStretch> statuses_;
};

/// A hash map as a user would use it first: nothing reserved.
template <typename Map>
class MapTable {
  public:
    explicit MapTable(size_t) {
        if constexpr (requires { map_.set_empty_key(Digest{}); }) map_.set_empty_key(Digest{});
    }
    size_t add(const Digest* keys, size_t count, uint64_t value) {
        size_t added = 0;
        for (size_t i = 0; i < count; ++i)
            added += map_.insert({keys[i], value + i}).second ? 1 : 0;
        return added;
    }
    Found fetch(const Digest* keys, size_t count) {
        Found found;
        for (size_t i = 0; i < count; ++i)
            find(keys[i], found);
        return found;
    }
    Found exists(const Digest* keys, size_t count) { return fetch(keys, count); }

  protected:
    void find(const Digest& key, Found& found) {
        const auto entry = map_.find(key);
        if (entry == map_.end()) return;
        ++found.count;
        found.values += entry->second;
    }
    Map map_;
};

/// A map with a prefetch call: each key is prefetched 16 keys ahead.
template <typename Map>
class PrefetchTable : public MapTable<Map> {
  public:
    using MapTable<Map>::MapTable;

    Found fetch(const Digest* keys, size_t count) {
        constexpr size_t kAhead = 16;
        Found found;
        for (size_t i = 0; i < count; ++i) {
            if (i + kAhead < count) this->map_.prefetch(keys[i + kAhead]);
            this->find(keys[i], found);
        }
        return found;
    }
    Found exists(const Digest* keys, size_t count) { return fetch(keys, count); }
};

using AbseilMap = absl::flat_hash_map<Digest, uint64_t, DigestHash>;
using AbseilTable = MapTable<AbseilMap>;
using AbseilPrefetchTable = PrefetchTable<AbseilMap>;
using StdTable = MapTable<std::unordered_map<Digest, uint64_t, DigestHash>>;
using BoostTable = MapTable<boost::unordered_map<Digest, uint64_t, DigestHash>>;
using DenseTable = MapTable<google::dense_hash_map<Digest, uint64_t, DigestHash>>;
using SparseTable = MapTable<google::sparse_hash_map<Digest, uint64_t, DigestHash>>;

}  // namespace bench

#endif
