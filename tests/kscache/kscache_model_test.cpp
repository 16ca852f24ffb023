// Random operations on a cache beside the same ones on a plain map, with pages and transfers as a
// system may have them. KSPOOL_TEST_STEPS=n makes a run n steps long; with --gtest_repeat, each run
// has a seed of its own, which it prints, and the last line counts what all have done.
#include <cstdlib>
#include <random>

#include "tests/support/cache_model.h"
#include "tests/support/folder.h"
#include "tests/support/torture.h"

namespace {

using calls::Placement;

struct Shape {
    const char* name;
    uint32_t bits;
    Placement placement;
    bool tellsRepeats;
};

class Model : public testing::TestWithParam<Shape> {};

uint64_t fromEnvironment(const char* name, uint64_t otherwise) {
    const char* given = getenv(name);
    return given != nullptr ? std::strtoull(given, nullptr, 0) : otherwise;
}

TEST_P(Model, AgreesAfterEachStep) {
    const Shape& shape = GetParam();
    static uint64_t runs = 0, steps = 0, comparisons = 0;
    const uint64_t seed = fromEnvironment("KSPOOL_TEST_SEED", std::random_device()());
    const uint64_t count = fromEnvironment("KSPOOL_TEST_STEPS", 2000);
    fprintf(stderr, "model: KSPOOL_TEST_STEPS=%lu KSPOOL_TEST_SEED=%lu\n", count, seed);
    std::mt19937_64 random(seed);
    const Folder folder;
    const auto below = [&](uint64_t limit) { return random() % limit; };
    const torture::Watched watched;
    calls::place(shape.placement);
    CacheModel model({.bits = shape.bits,
                      .tellsRepeats = shape.tellsRepeats,
                      .pagesAscend = shape.placement == Placement::kAsAsked,
                      .name = "KSPOOL_TEST_SEED=" + std::to_string(seed)},
                     folder.path + "/" + shape.name, below);
    constexpr uint64_t kPieces[] = {40, 5000, 100000};  // of records, of blocks, of files
    for (uint64_t step = 0; step < count; ++step, ++steps) {
        calls::cutTransfers(1 + below(kPieces[below(3)]));
        if (model.step() || step < 200 || step % 97 == 0) {
            model.compareAll();
            ++comparisons;
        }
        scripted::takeRecord();
    }
    for (const uint64_t piece : kPieces) {  // so many steps meet few restarts
        calls::cutTransfers(1 + below(piece));
        model.restart();
        model.compareAll();
    }
    printf("model: %lu runs, %lu steps, %lu comparisons of all\n", ++runs, steps, comparisons);
}

INSTANTIATE_TEST_SUITE_P(Shapes, Model,
                         testing::Values(Shape{"deep", 1, Placement::kAsAsked, true},
                                         Shape{"descending", 2, Placement::kDescending, false},
                                         Shape{"scattered", 4, Placement::kScattered, true},
                                         Shape{"shallow", 12, Placement::kAsAsked, false}),
                         [](const auto& given) { return given.param.name; });

}  // namespace
