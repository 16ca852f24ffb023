// Adler-32, the checksum of cache files: two sums modulo 65521, the first of all bytes, the second
// of the values of the first sum after each byte. The checksum starts at 1. Data may be folded in
// pieces.
#ifndef KSCACHE_ADLER_H
#define KSCACHE_ADLER_H

#include <cstddef>
#include <cstdint>

namespace kspool {

inline constexpr uint32_t kAdlerStart = 1;

/// Folds bytes into a checksum, with AVX2 instructions if the processor has them.
uint32_t adlerFold(uint32_t sum, const void* bytes, size_t length) noexcept;

/// The same with plain instructions: for processors without AVX2, and for the rest of a block.
uint32_t adlerFoldPlain(uint32_t sum, const uint8_t* bytes, size_t length) noexcept;

}  // namespace kspool

#endif
