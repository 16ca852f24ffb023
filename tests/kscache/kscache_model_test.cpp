// Random operations on a cache beside the same ones on a plain map, with pages and transfers as a
// system may have them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "tests/support/cache_model.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace {

using calls::Placement;
using Repeats = CacheModel::Repeats;

struct Setup {
    const char* name;
    uint32_t bits;
    Placement placement;
    Repeats repeats;
};

class Model : public testing::TestWithParam<Setup> {};

TEST_P(Model, AgreesAfterEachStep) {
    const char* given = getenv("KSPOOL_TEST_SEED");
    const uint64_t seed =
        given != nullptr ? std::strtoull(given, nullptr, 0) : std::random_device()();
    printf("KSPOOL_TEST_SEED=%lu\n", static_cast<unsigned long>(seed));
    fflush(stdout);
    std::mt19937_64 random(seed);
    const auto below = [&](uint64_t limit) { return random() % limit; };
    scripted::reset();
    calls::watch();
    calls::place(GetParam().placement);
    {
        CacheModel model(below, testing::TempDir() + "model-" + GetParam().name, GetParam().bits,
                         GetParam().repeats, GetParam().placement == Placement::AsAsked);
        for (int step = 0; step < 5000; ++step) {
            constexpr uint64_t kPieces[] = {40, 5000, 100000};  // of records, of blocks, of files
            calls::cutTransfers(1 + below(kPieces[below(3)]));
            if (model.step() || step < 200 || step % 97 == 0) model.compareAll();
            scripted::takeRecord();
        }
    }
    EXPECT_EQ(calls::live(), 0U);
    calls::leaveAlone();
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, Model,
    testing::Values(Setup{"deep", 1, Placement::AsAsked, Repeats::Told},
                    Setup{"descending", 2, Placement::Descending, Repeats::NotTold},
                    Setup{"scattered", 4, Placement::Scattered, Repeats::Told},
                    Setup{"shallow", 12, Placement::AsAsked, Repeats::NotTold}),
    [](const auto& given) { return given.param.name; });

}  // namespace
