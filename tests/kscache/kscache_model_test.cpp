// Random operations on a cache beside the same ones on a plain map, with pages and transfers as a
// system may have them.
#include <cstdlib>
#include <random>

#include "tests/support/cache_model.h"
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

TEST_P(Model, AgreesAfterEachStep) {
    const Shape& shape = GetParam();
    const char* given = getenv("KSPOOL_TEST_SEED");
    const uint64_t seed =
        given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
    std::mt19937_64 random(seed);
    const auto below = [&](uint64_t limit) { return random() % limit; };
    const torture::Watched watched;
    calls::place(shape.placement);
    CacheModel model({.bits = shape.bits,
                      .tellsRepeats = shape.tellsRepeats,
                      .pagesAscend = shape.placement == Placement::kAsAsked,
                      .name = "KSPOOL_TEST_SEED=" + std::to_string(seed)},
                     testing::TempDir() + "model-" + shape.name, below);
    constexpr uint64_t kPieces[] = {40, 5000, 100000};  // of records, of blocks, of files
    for (int step = 0; step < 2000; ++step) {
        calls::cutTransfers(1 + below(kPieces[below(3)]));
        if (model.step() || step < 200 || step % 97 == 0) model.compareAll();
        scripted::takeRecord();
    }
    for (const uint64_t piece : kPieces) {  // so many steps meet few restarts
        calls::cutTransfers(1 + below(piece));
        model.restart();
        model.compareAll();
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, Model,
                         testing::Values(Shape{"deep", 1, Placement::kAsAsked, true},
                                         Shape{"descending", 2, Placement::kDescending, false},
                                         Shape{"scattered", 4, Placement::kScattered, true},
                                         Shape{"shallow", 12, Placement::kAsAsked, false}),
                         [](const auto& given) { return given.param.name; });

}  // namespace
