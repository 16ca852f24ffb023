// The machine's own time for lookups that hit: the lines that they touch, found beforehand, are
// prefetched, read, and written where a lookup counts a reference. No table that stores entries as
// the cache does can be faster.
#ifndef BENCH_REPLAY_H
#define BENCH_REPLAY_H

#include <cstdint>
#include <vector>

#include "bench/bench_run.h"
#include "kscache/kscache_tree.h"

namespace bench {

struct Line {
    char* address;
    bool written;
};

/// The lines of each key in turn: its root, the first line of each node that its search meets, and
/// the second line of its own node, where the reference count is.
inline std::vector<Line> linesOf(const KSCache* cache, const std::vector<KSCacheKey>& keys) {
    std::vector<Line> lines;
    lines.reserve(keys.size() * 4);
    const auto add = [&](auto* address, bool written = false) {
        lines.push_back({reinterpret_cast<char*>(address), written});
    };
    for (const KSCacheKey& wanted : keys) {
        const kspool::Key key = kspool::makeKey(wanted.fingerprint, wanted.type);
        KSCacheNode** link = kspool::rootOf(cache, key);
        add(link);
        KSCacheNode* node = kspool::nodeAt(link);
        for (; !kspool::holdsKey(*node, key);
             node = kspool::sortsBefore(*node, key) ? node->higher : node->lower)
            add(node);
        add(node);
        add(&node->type, true);
    }
    return lines;
}

/// The cache level that lines are prefetched to, as __builtin_prefetch() numbers its localities.
enum class Level : int { kFirst = 3, kSecond = 2 };

/// Touches all lines, each prefetched as many keys ahead, with three lines a key.
template <Level level, size_t keysAhead>
void replay(const std::vector<Line>& lines) {
    constexpr size_t kAhead = 3 * keysAhead;
    char elsewhere = 0;
    int sum = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const Line& later = lines[std::min(i + kAhead, lines.size() - 1)];
        __builtin_prefetch(later.address, 0, static_cast<int>(level));
        const char byte = *lines[i].address;
        sum += byte;
        *(lines[i].written ? lines[i].address : &elsewhere) = byte;
    }
    benchmark::DoNotOptimize(sum);
}

}  // namespace bench

#endif
