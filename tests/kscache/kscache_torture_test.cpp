// The life of a cache under failing calls: each call has a status, each entry that was taken is
// there, and pages, trees and counters are sound after each step.
#include <cstdio>
#include <filesystem>

#include "tests/support/cache_model.h"
#include "tests/support/folder.h"
#include "tests/support/torture.h"

namespace {

const Folder kFolder;

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

/// The old file stays whatever fails before the folder is synced, and nothing is left beside it,
/// unless that cannot be removed either.
void replaceFile(CacheModel& model, uint32_t entries) {
    const std::string path = kFolder.path + "/replaced";
    const std::string old = "400000000000000001\n";  // no entries
    FILE* file = fopen(path.c_str(), "w");
    fwrite(old.data(), 1, old.size(), file);
    fclose(file);
    model.fill(entries);
    const size_t syncs = calls::made(calls::kFsync);
    const uint32_t status = KSCacheReplaceFile(model.cache(), path.c_str(), nullptr, nullptr);
    const bool replaced = calls::made(calls::kFsync) == syncs + 2;
    EXPECT_TRUE(status == 0 ? replaced : calls::failures() > 0) << status;
    std::error_code none;
    EXPECT_EQ(std::filesystem::file_size(path, none) != old.size(), replaced);
    EXPECT_FALSE(std::filesystem::exists(path + ".new", none));
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
                         kFolder.path + "/" + s.name);
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
                                         Scenario{"replace", 0, 6, 0, 1500, replaceFile},
                                         Scenario{"deep", 0, 1, 0, 1600, goOn}),
                         [](const auto& given) { return given.param.name; });

}  // namespace
