// The support library's stand-in: finding characters in long texts.
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "platform/support.h"

namespace {

// What follows a text is read up to the end of a block, but never of another page than that which
// a byte of the text is in.
#define WIDE __attribute__((target("avx2"), no_sanitize("address", "thread")))

constexpr uintptr_t kPage = 4096;
constexpr uintptr_t kBlock = sizeof(__m256i);
constexpr uintptr_t kCacheLine = 64;
constexpr uintptr_t kAhead = 1024;

/// The first `a`, `b` or NUL. Line ends sort below all that lines are made of, so that one
/// comparison tells for most blocks that there is nothing in them.
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
    for (; reinterpret_cast<uintptr_t>(text) % kPage > kPage - kBlock; ++text)
        if (*text == a || *text == b || *text == '\0') return text;
    // Where the next search begins hangs on what this one reads; until then nothing further on
    // would be asked for.
    _mm_prefetch(text + kAhead, _MM_HINT_T0);
    _mm_prefetch(text + kAhead + kCacheLine, _MM_HINT_T0);
    // Not aligned: in front of the text a line was just cut, for which the block would wait.
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

char* qlxstrpbrk(const char* text, const char* set) noexcept {
    // Two characters, as lines end with, are worth a loop of their own.
    const bool two = set[0] != '\0' && set[1] != '\0' && set[2] == '\0';
    if (!two || !isWide) return const_cast<char*>(strpbrk(text, set));
    const char* found = findEither(text, set[0], set[1]);
    return *found != '\0' ? const_cast<char*>(found) : nullptr;
}
