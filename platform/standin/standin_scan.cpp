// The support library's stand-in: finding characters in long texts.
#include <immintrin.h>

#include <cstdint>
#include <cstring>

#include "platform/support.h"

namespace {

// What follows a text is read up to the end of a block, but never of another page than that which
// a byte of the text is in.
#define READS_BEYOND __attribute__((no_sanitize("address")))
#define WIDE __attribute__((target("avx2"), no_sanitize("address")))

constexpr uintptr_t kPage = 4096;
constexpr uintptr_t kBlock = 32;

/// A bit for each byte of a block that is `a`, `b` or NUL.
struct Narrow {
    __m128i a, b;

    READS_BEYOND uint32_t half(const char* at) const {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        const __m128i ends = _mm_cmpeq_epi8(bytes, _mm_setzero_si128());
        const __m128i either = _mm_or_si128(_mm_cmpeq_epi8(bytes, a), _mm_cmpeq_epi8(bytes, b));
        return static_cast<uint32_t>(_mm_movemask_epi8(_mm_or_si128(either, ends)));
    }
    READS_BEYOND uint32_t matches(const char* at) const {
        return half(at) | half(at + kBlock / 2) << 16;
    }
};

READS_BEYOND const char* findEither(const char* text, char a, char b) {
    const Narrow narrow{_mm_set1_epi8(a), _mm_set1_epi8(b)};
    for (; reinterpret_cast<uintptr_t>(text) % kPage > kPage - kBlock; ++text)
        if (*text == a || *text == b || *text == '\0') return text;
    uint32_t found = narrow.matches(text);
    // A line that was just cut ends in front of the text: an aligned block would have to wait for
    // it.
    if (found != 0) return text + __builtin_ctz(found);
    text -= reinterpret_cast<uintptr_t>(text) % kBlock;
    do {
        text += kBlock;
        found = narrow.matches(text);
    } while (found == 0);
    return text + __builtin_ctz(found);
}

WIDE inline uint32_t wideMatches(const char* at, __m256i a, __m256i b) {
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    const __m256i ends = _mm256_cmpeq_epi8(bytes, _mm256_setzero_si256());
    const __m256i either =
        _mm256_or_si256(_mm256_cmpeq_epi8(bytes, a), _mm256_cmpeq_epi8(bytes, b));
    return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_or_si256(either, ends)));
}

/// The same with registers twice as wide.
WIDE const char* findEitherWide(const char* text, char a, char b) {
    const __m256i first = _mm256_set1_epi8(a);
    const __m256i second = _mm256_set1_epi8(b);
    for (; reinterpret_cast<uintptr_t>(text) % kPage > kPage - kBlock; ++text)
        if (*text == a || *text == b || *text == '\0') return text;
    uint32_t found = wideMatches(text, first, second);
    if (found != 0) return text + __builtin_ctz(found);
    text -= reinterpret_cast<uintptr_t>(text) % kBlock;
    do {
        text += kBlock;
        found = wideMatches(text, first, second);
    } while (found == 0);
    return text + __builtin_ctz(found);
}

const bool isWide = __builtin_cpu_supports("avx2") != 0;

}  // namespace

char* qlxstrpbrk(const char* text, const char* set) noexcept {
    // Two characters, as lines end with, are worth a loop of their own.
    const bool two = set[0] != '\0' && set[1] != '\0' && set[2] == '\0';
    if (!two) return const_cast<char*>(strpbrk(text, set));
    const char* found =
        isWide ? findEitherWide(text, set[0], set[1]) : findEither(text, set[0], set[1]);
    return *found != '\0' ? const_cast<char*>(found) : nullptr;
}
