// The support library's stand-in: searching long texts for characters. A cursor calls qlxstrpbrk()
// once for each line of an answer, which can be hundreds of megabytes, with lines of some 100
// bytes.
#ifdef __x86_64__
#include <immintrin.h>
#endif

#include <cstdint>
#include <cstring>

#include "platform/support.h"

#ifdef __x86_64__
namespace {

// A block load may read past the terminating NUL. It cannot fault, because it never crosses into a
// page without a byte of the text; the sanitizers would report it nevertheless.
#define WIDE __attribute__((target("avx2"), no_sanitize("address", "thread")))

constexpr uintptr_t kPage = 4096;
constexpr uintptr_t kBlock = sizeof(__m256i);
constexpr uintptr_t kCacheLine = 64;
constexpr uintptr_t kAhead = 1024;

/// The first `a`, `b` or NUL, 32 bytes at a time. CR, LF and NUL are smaller than every printable
/// byte, so a single test, min(bytes, highest) == bytes, rejects most blocks.
WIDE const char* findEither(const char* text, char a, char b) {
    const __m256i first = _mm256_set1_epi8(a);
    const __m256i second = _mm256_set1_epi8(b);
    const __m256i highest = _mm256_max_epu8(first, second);
    const auto matches = [&](const char* at) WIDE -> uint32_t {
        const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
        const __m256i low = _mm256_cmpeq_epi8(_mm256_min_epu8(bytes, highest), bytes);
        if (_mm256_testz_si256(low, low) != 0) return 0;
        const __m256i ends = _mm256_cmpeq_epi8(bytes, _mm256_setzero_si256());
        const __m256i either =
            _mm256_or_si256(_mm256_cmpeq_epi8(bytes, first), _mm256_cmpeq_epi8(bytes, second));
        return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_or_si256(either, ends)));
    };
    // An unaligned load near the end of a page would cross it: go byte by byte into the next page.
    for (; reinterpret_cast<uintptr_t>(text) % kPage > kPage - kBlock; ++text)
        if (*text == a || *text == b || *text == '\0') return text;
    // The next search depends on this result, so the hardware prefetcher cannot run ahead. Prefetch
    // the text that will be searched a few lines later.
    _mm_prefetch(text + kAhead, _MM_HINT_T0);
    _mm_prefetch(text + kAhead + kCacheLine, _MM_HINT_T0);
    // The first load is unaligned. An aligned load would cover the NUL just stored in front of the
    // text and stall on store forwarding: the byte is still in the store buffer, and a load that is
    // wider than the store has to wait until it is in the cache.
    uint32_t found = matches(text);
    if (found != 0) return text + __builtin_ctz(found);
    text -= reinterpret_cast<uintptr_t>(text) % kBlock;
    do {
        text += kBlock;
        found = matches(text);
    } while (found == 0);
    return text + __builtin_ctz(found);
}

const bool isWide = __builtin_cpu_supports("avx2") != 0;

}  // namespace
#endif

char* qlxstrpbrk(const char* text, const char* set) noexcept {
#ifdef __x86_64__
    // The library only searches for "\r\n"; other sets are not worth a fast path.
    const bool two = set[0] != '\0' && set[1] != '\0' && set[2] == '\0';
    if (two && isWide) {
        const char* found = findEither(text, set[0], set[1]);
        return *found != '\0' ? const_cast<char*>(found) : nullptr;
    }
#endif
    return const_cast<char*>(strpbrk(text, set));
}
