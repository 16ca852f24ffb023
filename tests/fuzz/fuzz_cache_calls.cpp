// Any sequence of calls of a cache, beside a plain map.
#include "tests/fuzz/fuzz.h"
#include "tests/support/cache_model.h"

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static const fuzz::ScratchFile file("kspool-fuzz-cache-calls");
    fuzz::discardMessages();
    fuzz::Input input(bytes, size);
    const auto below = [&](uint64_t limit) {
        const uint64_t low = input.byte();
        return (limit <= 256 ? low : low << 8 | input.byte()) % limit;
    };
    const uint32_t bits = input.below(7);
    CacheModel model({.bits = bits, .tellsRepeats = true}, file.path(), below);
    while (!input.isEmpty())
        model.step();
    model.compareAll();
    return 0;
}
