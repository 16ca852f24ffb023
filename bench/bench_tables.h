// The tables that are compared: the cache and its peers, behind the same three calls.
#ifndef BENCH_TABLES_H
#define BENCH_TABLES_H

#include <absl/container/flat_hash_map.h>

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

/// Digests are random already, so eight of their bytes are as good a hash as any.
struct DigestHash {
    size_t operator()(const Digest& digest) const {
        size_t hash = 0;
        memcpy(&hash, digest.data(), sizeof hash);
        return hash;
    }
};

/// Two to four roots an entry.
inline uint32_t bitsFor(size_t entries) {
    uint32_t bits = 1;
    while ((size_t{1} << bits) < entries && bits < 28)
        ++bits;
    return bits + 1;
}

/// The cache, with the settings that its documentation advises.
class CacheTable {
  public:
    explicit CacheTable(size_t entries)
        : cache_(KSCacheCreate(static_cast<uint32_t>(entries / 200), bitsFor(entries), 0, nullptr,
                               nullptr)) {}
    ~CacheTable() { KSCacheDestroy(cache_); }
    CacheTable(const CacheTable&) = delete;
    CacheTable& operator=(const CacheTable&) = delete;

    bool add(const Digest& key, uint64_t value) {
        return KSCacheAdd(cache_, key.data(), CR_FP_SHA256, value, nullptr) == CR_STATUS_OK;
    }
    bool exists(const Digest& key, uint64_t& value) {
        return KSCacheExists(cache_, key.data(), CR_FP_SHA256, &value) == CR_STATUS_OK;
    }
    bool fetch(const Digest& key, uint64_t& value) {
        return KSCacheFetch(cache_, key.data(), CR_FP_SHA256, &value) == CR_STATUS_OK;
    }

  private:
    KSCache* cache_;
};

/// A hash map as a user would take it: nothing reserved.
template <typename Map>
class MapTable {
  public:
    explicit MapTable(size_t) {
        if constexpr (requires { map_.set_empty_key(Digest{}); }) map_.set_empty_key(Digest{});
    }
    bool add(const Digest& key, uint64_t value) { return map_.insert({key, value}).second; }
    bool fetch(const Digest& key, uint64_t& value) {
        const auto found = map_.find(key);
        if (found == map_.end()) return false;
        value = found->second;
        return true;
    }
    bool exists(const Digest& key, uint64_t& value) { return fetch(key, value); }

  private:
    Map map_;
};

using AbseilTable = MapTable<absl::flat_hash_map<Digest, uint64_t, DigestHash>>;
using StdTable = MapTable<std::unordered_map<Digest, uint64_t, DigestHash>>;
using BoostTable = MapTable<boost::unordered_map<Digest, uint64_t, DigestHash>>;
using DenseTable = MapTable<google::dense_hash_map<Digest, uint64_t, DigestHash>>;
using SparseTable = MapTable<google::sparse_hash_map<Digest, uint64_t, DigestHash>>;

}  // namespace bench

#endif
