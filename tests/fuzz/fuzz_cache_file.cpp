// A cache file of any bytes: refused, or loaded as what it says, and saved again as the same.
#include "kscache/kscache_file.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/cache_invariants.h"

namespace {

uint64_t items(const KSCache* cache) {
    KSCacheStatsRecord stats;
    MUST(KSCacheStats(cache, &stats) == 0);
    MUST(brokenInvariant(cache).empty());
    return stats.cachedItems;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static const fuzz::ScratchFile file("kspool-fuzz-cache-file");
    fuzz::discardMessages();
    file.hold(std::string(reinterpret_cast<const char*>(bytes), size));
    KSCache* cache = KSCacheCreate(0, static_cast<uint32_t>(size % 7 + 1), 0, nullptr, nullptr);
    uint64_t loaded = 0, saved = 0, again = 0;
    const uint32_t status = KSCacheLoad(cache, file.path(), &loaded);
    MUST(status == 0 || (loaded == 0 && items(cache) == 0));
    MUST(status != 0 || loaded == (size - QLX_MAGIC_LENGTH) / kspool::kRecordSize);
    MUST(status != 0 || items(cache) <= loaded);
    MUST(KSCacheSave(cache, file.path(), &saved) == 0);
    MUST(saved == items(cache));
    if (saved > 0) {
        KSCache* copy = KSCacheCreate(0, 3, 0, nullptr, nullptr);
        MUST(KSCacheLoad(copy, file.path(), &again) == 0);
        MUST(again == saved && items(copy) == saved);
        const std::string first = file.content();
        MUST(KSCacheSave(copy, file.path(), nullptr) == 0 && file.content() == first);
        KSCacheDestroy(copy);
    }
    KSCacheDestroy(cache);
    return 0;
}
