// The tables that are compared: the cache and other hash tables, each with an add and with one or
// more ways to look keys up. All take the keys as KSCacheKey, digests of 32 bytes each.
#ifndef BENCH_TABLES_H
#define BENCH_TABLES_H

#include <absl/container/flat_hash_map.h>

#include <algorithm>
#include <array>
#include <boost/unordered/unordered_flat_map.hpp>
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

inline const Digest& digestOf(const KSCacheKey& key) {
    return *static_cast<const Digest*>(key.fingerprint);
}

/// The result of a stretch of lookups.
struct Found {
    size_t count = 0;
    uint64_t values = 0;  ///< sum of the values, so that each value is read
};

/// The cache by its single and its batch calls, with the settings that its documentation advises.
class CacheTable {
  public:
    explicit CacheTable(size_t entries) : CacheTable(entries, KSCacheAreaFor(entries)) {}
    CacheTable(size_t entries, uint32_t areaSize)
        : cache_(KSCacheCreate(areaSize, KSCacheBitsFor(entries), 0, nullptr, nullptr)) {}
    ~CacheTable() { KSCacheDestroy(cache_); }
    CacheTable(const CacheTable&) = delete;
    CacheTable& operator=(const CacheTable&) = delete;

    KSCache* handle() { return cache_; }

    size_t add(const KSCacheKey* keys, size_t count, uint64_t value) {
        size_t added = 0;
        for (size_t i = 0; i < count; ++i) {
            added += KSCacheAdd(cache_, keys[i].fingerprint, keys[i].type, value + i, nullptr) ==
                     CR_STATUS_OK;
        }
        return added;
    }
    size_t addBatch(const KSCacheKey* keys, size_t count, uint64_t value) {
        for (size_t i = 0; i < count; ++i)
            values_[i] = value + i;
        KSCacheAddBatch(cache_, keys, values_.data(), nullptr, count, statuses_.data());
        return found(count).count;
    }
    Found exists(const KSCacheKey* keys, size_t count) {
        return lookUp(KSCacheExists, keys, count);
    }
    Found fetch(const KSCacheKey* keys, size_t count) { return lookUp(KSCacheFetch, keys, count); }
    template <size_t size>
    Found existsBatch(const KSCacheKey* keys, size_t count) {
        return lookUpBatches<size>(KSCacheExistsBatch, keys, count);
    }
    Found fetchBatch(const KSCacheKey* keys, size_t count) {
        return lookUpBatches<kStretch>(KSCacheFetchBatch, keys, count);
    }

  private:
    template <typename Call>
    Found lookUp(Call call, const KSCacheKey* keys, size_t count) {
        for (size_t i = 0; i < count; ++i)
            statuses_[i] = call(cache_, keys[i].fingerprint, keys[i].type, &values_[i]);
        return found(count);
    }
    template <size_t size, typename Call>
    Found lookUpBatches(Call call, const KSCacheKey* keys, size_t count) {
        for (size_t i = 0; i < count; i += size)
            call(cache_, keys + i, std::min(size, count - i), &values_[i], &statuses_[i]);
        return found(count);
    }
    Found found(size_t count) const {
        Found found;
        for (size_t i = 0; i < count; ++i) {
            if (statuses_[i] != CR_STATUS_OK) continue;
            ++found.count;
            found.values += values_[i];
        }
        return found;
    }

    KSCache* cache_;
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
    size_t add(const KSCacheKey* keys, size_t count, uint64_t value) {
        size_t added = 0;
        for (size_t i = 0; i < count; ++i)
            added += map_.insert({digestOf(keys[i]), value + i}).second ? 1 : 0;
        return added;
    }
    Found find(const KSCacheKey* keys, size_t count) {
        Found found;
        for (size_t i = 0; i < count; ++i)
            find(keys[i], found);
        return found;
    }
    /// Each key is prefetched `ahead` keys before it is looked up. For maps with such a call.
    template <size_t ahead>
    Found findAhead(const KSCacheKey* keys, size_t count) {
        Found found;
        for (size_t i = 0; i < count; ++i) {
            if (i + ahead < count) map_.prefetch(digestOf(keys[i + ahead]));
            find(keys[i], found);
        }
        return found;
    }

  private:
    void find(const KSCacheKey& key, Found& found) {
        const auto entry = map_.find(digestOf(key));
        if (entry == map_.end()) return;
        ++found.count;
        found.values += entry->second;
    }
    Map map_;
};

using AbseilTable = MapTable<absl::flat_hash_map<Digest, uint64_t, DigestHash>>;
using BoostTable = MapTable<boost::unordered_flat_map<Digest, uint64_t, DigestHash>>;
using StdTable = MapTable<std::unordered_map<Digest, uint64_t, DigestHash>>;
using DenseTable = MapTable<google::dense_hash_map<Digest, uint64_t, DigestHash>>;
using SparseTable = MapTable<google::sparse_hash_map<Digest, uint64_t, DigestHash>>;

}  // namespace bench

#endif
