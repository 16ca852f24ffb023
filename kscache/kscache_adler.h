// Adler-32, the checksum of cache files: two sums modulo 65521, of the bytes, and of the first sum
// after each byte. Starts at 1; folding pieces one after the other gives the sum of all of them.
#ifndef KSCACHE_ADLER_H
#define KSCACHE_ADLER_H

#include <cstddef>
#include <cstdint>

namespace kspool {

inline constexpr uint32_t kAdlerStart = 1;

/// Folds bytes into a checksum, with vector instructions where the processor has them.
uint32_t adlerFold(uint32_t sum, const void* bytes, size_t length) noexcept;

/// The same without them.
uint32_t adlerFoldPlain(uint32_t sum, const uint8_t* bytes, size_t length) noexcept;

}  // namespace kspool

#endif
