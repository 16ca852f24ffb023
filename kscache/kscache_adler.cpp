#include "kscache/kscache_adler.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

#include <algorithm>

namespace kspool {
namespace {

constexpr uint32_t kModulus = 65521;

/// The most bytes that can be added to reduced sums before the second sum overflows 32 bits: one
/// modulo per so many bytes is enough.
constexpr size_t kReduceAfter = 5552;

constexpr uint32_t join(uint32_t first, uint32_t second) {
    return second << 16 | first;
}

#ifdef __x86_64__

/// Bytes of one step of the vector version. A byte counts in the second sum once for each byte from
/// it to the end of the block: 64 times for each step after its own (`earlier`), and its weight
/// within its step on top.
constexpr uint32_t kStep = 64;
constexpr size_t kStepsBeforeReduce = kReduceAfter / kStep;

__attribute__((target("avx2"))) uint32_t sumOfWords(__m256i words) {
    __m128i half = _mm_add_epi32(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
    half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0x4e));
    half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0xb1));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(half));
}

/// Folds complete steps only; the caller folds the remaining bytes.
__attribute__((target("avx2"))) uint32_t foldSteps(uint32_t sum, const uint8_t* bytes,
                                                   size_t steps) {
    // The weight of a byte within its half of a step: the first counts 32 times, the last once.
    const __m256i weights =
        _mm256_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15, 14,
                         13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
    const __m256i ones = _mm256_set1_epi16(1);
    const __m256i zero = _mm256_setzero_si256();
    uint32_t first = sum & 0xffff;
    uint32_t second = sum >> 16;
    while (steps > 0) {
        const size_t now = std::min(steps, kStepsBeforeReduce);
        __m256i sums = zero;         // of all bytes so far
        __m256i earlier = zero;      // `sums` as it was before each step
        __m256i firstHalves = zero;  // bytes of first halves, which count 32 times more
        __m256i weighted = zero;
        for (size_t i = 0; i < now; ++i, bytes += kStep) {
            const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
            const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + 32));
            const __m256i sumA = _mm256_sad_epu8(a, zero);
            earlier = _mm256_add_epi32(earlier, sums);
            sums = _mm256_add_epi32(sums, _mm256_add_epi32(sumA, _mm256_sad_epu8(b, zero)));
            firstHalves = _mm256_add_epi32(firstHalves, sumA);
            // At most 255 x (32 + 31) x 2 = 32130 in a lane of 16 bits: no saturation.
            const __m256i places = _mm256_add_epi16(_mm256_maddubs_epi16(a, weights),
                                                    _mm256_maddubs_epi16(b, weights));
            weighted = _mm256_add_epi32(weighted, _mm256_madd_epi16(places, ones));
        }
        second += first * static_cast<uint32_t>(now * kStep) + sumOfWords(earlier) * kStep +
                  sumOfWords(firstHalves) * 32 + sumOfWords(weighted);
        first += sumOfWords(sums);
        first %= kModulus;
        second %= kModulus;
        steps -= now;
    }
    return join(first, second);
}

#endif

}  // namespace

uint32_t adlerFoldPlain(uint32_t sum, const uint8_t* bytes, size_t length) noexcept {
    uint32_t first = sum & 0xffff;
    uint32_t second = sum >> 16;
    while (length > 0) {
        const size_t now = std::min(length, kReduceAfter);
        for (size_t i = 0; i < now; ++i) {
            first += bytes[i];
            second += first;
        }
        first %= kModulus;
        second %= kModulus;
        bytes += now;
        length -= now;
    }
    return join(first, second);
}

uint32_t adlerFold(uint32_t sum, const void* bytes, size_t length) noexcept {
    const auto* at = static_cast<const uint8_t*>(bytes);
    size_t whole = 0;
#ifdef __x86_64__
    if (__builtin_cpu_supports("avx2") != 0) {
        whole = length / kStep * kStep;
        sum = foldSteps(sum, at, whole / kStep);
    }
#endif
    return adlerFoldPlain(sum, at + whole, length - whole);
}

}  // namespace kspool
