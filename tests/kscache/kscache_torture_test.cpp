// The life of a cache under failing calls: each call has a status, each entry that was taken is
// there, and pages, trees and counters are sound after each step.
#include "tests/support/cache_model.h"
#include "tests/support/torture.h"

namespace {

struct Scenario {
    const char* name;
    uint32_t areaSize, bits, lockPages, entries;
    void (*live)(CacheModel& model, uint32_t entries);
};

void fill(CacheModel& model, uint32_t entries) {
    model.fill(entries, CacheModel::kSwapped);
    model.compareAll();
}

void fillAgain(CacheModel& model, uint32_t entries) {
    fill(model, entries);
    model.reset();
    model.fill(entries, CacheModel::kBatch);
    model.compareAll();
}

void goOn(CacheModel& model, uint32_t entries) {
    fill(model, entries);
    model.drop(entries);
    model.reclaim();
    model.compareAll();
    model.sortedReport();
    model.restart();
    model.compareAll();
}

class CacheTorture : public testing::TestWithParam<Scenario> {};

TEST_P(CacheTorture, EveryCallFailsInTurn) {
    const Scenario& s = GetParam();
    torture::run([&] {
        CacheModel model({.bits = s.bits,
                          .areaSize = s.areaSize,
                          .lockPages = s.lockPages,
                          .name = torture::what,
                          .failed = [] { return calls::failures() > 0; }},
                         testing::TempDir() + "torture-" + s.name);
        if (model.exists()) s.live(model, s.entries);
    });
}

INSTANTIATE_TEST_SUITE_P(Scenarios, CacheTorture,
                         testing::Values(Scenario{"create", 0, 20, 0, 0, fill},
                                         Scenario{"growth", 0, 6, 0, 5000, fill},
                                         Scenario{"lockedGrowth", 0, 6, 1, 3000, fill},
                                         Scenario{"reset", 1080, 4, 0, 2500, fillAgain},
                                         Scenario{"lockedReset", 2000, 1, 1, 2100, fillAgain},
                                         Scenario{"hugePages", 40000, 19, 0, 40100, fill},
                                         Scenario{"restart", 0, 6, 1, 4000, goOn},
                                         Scenario{"deep", 0, 1, 0, 1600, goOn}),
                         [](const auto& given) { return given.param.name; });

}  // namespace
