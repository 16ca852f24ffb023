// Changes cache files and mostly repairs their checksum, without which few would be read.
#include <cstring>

#include "kscache/kscache_adler.h"
#include "tests/fuzz/fuzz.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* bytes, size_t size, size_t most);

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* bytes, size_t size, size_t most, unsigned seed) {
    constexpr size_t kValueAt = 16;  // in the header, as docs/cache-format.md has it
    size = LLVMFuzzerMutate(bytes, size, most);
    if (size < QLX_MAGIC_LENGTH || seed % 16 == 0) return size;
    const uint64_t checksum =
        kspool::adlerFold(kspool::kAdlerStart, bytes + QLX_MAGIC_LENGTH, size - QLX_MAGIC_LENGTH);
    memcpy(bytes + kValueAt, &checksum, sizeof checksum);
    return size;
}
