// Reports on the contents and the shape of a cache, for people to read. No recursion: a tree can be
// as deep as it has nodes, and would exhaust the caller's stack.
#include <cstdlib>

#include "kscache/kscache_int.h"
#include "kscache/kscache_tree.h"

using namespace kspool;

namespace {

constexpr double kMegabyte = 1048576;

double megabytes(uint64_t bytes) {
    return static_cast<double>(bytes) / kMegabyte;
}

/// A fingerprint as text. The text is valid as long as the object: for a temporary, to the end of
/// the full expression.
class FingerprintText {
  public:
    explicit FingerprintText(const KSCacheNode& node)
        : text_(CRFPDigestToString_r(node.fingerprint, node.type, buffer_, sizeof buffer_)) {}
    FingerprintText(const FingerprintText&) = delete;
    FingerprintText& operator=(const FingerprintText&) = delete;

    const char* get() const { return text_; }

  private:
    char buffer_[65];
    const char* text_;
};

unsigned references(const KSCacheNode& node) {
    return static_cast<unsigned>(node.refCount);
}

unsigned long number(uint64_t value) {
    return value;
}

FILE* outputTo(FILE* stream) {
    return stream != nullptr ? stream : stdout;
}

/// The stack of an in-order traversal: the ancestors of the current node that are still to be
/// printed, the nearest on top. It is on the heap. If it cannot grow, each further ancestor is
/// found by a search from the root of the tree: slow in a deep tree, but complete.
class NodesAbove {
  public:
    explicit NodesAbove(const KSCacheNode* top) : top_(top) {}
    ~NodesAbove() { free(static_cast<void*>(nodes_)); }
    NodesAbove(const NodesAbove&) = delete;
    NodesAbove& operator=(const NodesAbove&) = delete;

    void push(const KSCacheNode* node) {
        if (count_ == capacity_ && !grow()) lost_ = true;
        if (!lost_) nodes_[count_++] = node;
    }
    /// The next node to print after `last` and its subtree, or NULL.
    const KSCacheNode* pop(const KSCacheNode* last) {
        if (lost_) return search(last);
        return count_ > 0 ? nodes_[--count_] : nullptr;
    }

  private:
    bool grow() {
        const ErrnoAndSlotGuard kept;
        const size_t wanted = capacity_ == 0 ? 64 : 2 * capacity_;
        void* memory = realloc(static_cast<void*>(nodes_), wanted * sizeof(void*));
        if (memory == nullptr) return false;
        nodes_ = static_cast<const KSCacheNode**>(memory);
        capacity_ = wanted;
        return true;
    }
    /// The last node on the path to `last` at which the path turned to `higher`.
    const KSCacheNode* search(const KSCacheNode* last) const {
        const Key key = makeKey(last->fingerprint, last->type);
        const KSCacheNode* found = nullptr;
        for (const KSCacheNode* node = top_; node != last;) {
            const bool higher = sortsBefore(*node, key);
            if (higher) found = node;
            node = higher ? node->higher : node->lower;
        }
        return found;
    }

    const KSCacheNode* top_;
    const KSCacheNode** nodes_ = nullptr;
    size_t count_ = 0;
    size_t capacity_ = 0;
    bool lost_ = false;
};

/// The highest node of a subtree.
const KSCacheNode* descend(const KSCacheNode* node, NodesAbove& above) {
    for (; node->higher != nullptr; node = node->higher)
        above.push(node);
    return node;
}

/// Prints a tree from its highest entry to its lowest.
void dumpSorted(FILE* stream, const KSCacheNode* top) {
    NodesAbove above(top);
    const KSCacheNode* node = descend(top, above);
    while (node != nullptr) {
        fprintf(stream, "%p %-8u %lu %s\n", static_cast<const void*>(node), references(*node),
                number(node->value), FingerprintText(*node).get());
        node = node->lower != nullptr ? descend(node->lower, above) : above.pop(node);
    }
}

void dumpSummary(FILE* stream, const KSCache* cache) {
    fprintf(stream,
            "KSCache summary : %.2f MB, %lu nodes, %u avail, %lu free, %lu hits, %lu miss\n",
            megabytes(cache->cacheSize), number(cache->cachedItems), cache->nodesAvailable,
            number(cache->freeListCount), number(cache->hits), number(cache->misses));
    fprintf(stream, "cache MMU        : %u pages, %u nodes/page, %zu kb/page\n", cache->pageCount,
            cache->areaSize, static_cast<size_t>(cache->areaSize * kNodeSize / 1024));
}

void dumpRawPage(FILE* stream, KSCachePage* page) {
    fprintf(stream, "Dumping page %p, %u nodes available\n", static_cast<void*>(page),
            page->freeCount - 1);
    fputs("Address RefCount FP\n", stream);
    int unused = 0;
    for (const KSCacheNode& slot : slotsOf(page)) {
        const auto* address = static_cast<const void*>(&slot);
        if (slot.refCount != 0) {
            fprintf(stream, "%p %-8u %s\n", address, references(slot), FingerprintText(slot).get());
        } else {
            fprintf(stream, "%p %-8u (free)\n", address, references(slot));
            ++unused;
        }
    }
    fprintf(stream, "%i unallocated nodes\n", unused);
}

void dumpFreeList(FILE* stream, const KSCache* cache) {
    fputs("free list:\n", stream);
    int nodes = 0;
    for (const KSCacheNode* node = cache->freeList; node != nullptr; node = node->higher, ++nodes)
        fprintf(stream, "%p\n", static_cast<const void*>(node));
    fprintf(stream, "%i nodes on free list\n", nodes);
}

}  // namespace

void KSCacheDump(FILE* stream, const KSCache* cache) noexcept {
    if (cache == nullptr) return;
    FILE* out = outputTo(stream);
    fputs("RefCount FP\n", out);
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next) {
        for (const KSCacheNode& slot : slotsOf(page)) {
            fprintf(out, "%-8u %lu %s\n", references(slot), number(slot.value),
                    FingerprintText(slot).get());
        }
    }
}

void KSCacheDumpSorted(FILE* stream, const KSCache* cache) noexcept {
    if (cache == nullptr) return;
    FILE* out = outputTo(stream);
    fputs("Address RefCount FP\n", out);
    for (size_t root = 0; root <= cache->mask; ++root) {
        if (const KSCacheNode* node = nodeAt(&cache->roots[root])) dumpSorted(out, node);
    }
}

void KSCacheDumpRaw(FILE* stream, const KSCache* cache) noexcept {
    if (cache == nullptr) return;
    FILE* out = outputTo(stream);
    dumpSummary(out, cache);
    for (KSCachePage* page = cache->firstPage; page != nullptr; page = page->next)
        dumpRawPage(out, page);
    dumpFreeList(out, cache);
}

void _ksCacheDump(const KSCache* cache, const char* name) noexcept {
    if (cache == nullptr) return;
    KS_TRACE(
        "%s cache summary\nCached Items      : %lu (%.2fMB)\nNode Size         : %u bytes\n"
        "Nodes available   : %u (%.2fMB)\nNodes on free list: %lu (%.2fMB)\n"
        "Cache Hits        : %lu\nCache Miss        : %lu\nTotal Pages       : %u\n"
        "Cache Size        : %.2f MB\nArea Size         : %u nodes/page, %u kb/page",
        name, number(cache->cachedItems), megabytes(cache->cachedItems * kNodeSize),
        static_cast<unsigned>(kNodeSize), cache->nodesAvailable,
        megabytes(cache->nodesAvailable * kNodeSize), number(cache->freeListCount),
        megabytes(cache->freeListCount * kNodeSize), number(cache->hits), number(cache->misses),
        cache->pageCount, megabytes(cache->cacheSize), cache->areaSize,
        static_cast<unsigned>(cache->areaSize * kNodeSize / 1024));
}
