// The life of a cache under failing calls: each call has a status, each entry that was taken is
// there, and pages, trees and counters are sound after each step.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    static unsigned runs = 0;
    const uid_t owner = geteuid() == 0 ? ++runs % 2 : geteuid();
    const gid_t group = geteuid() == 0 ? 1 : getegid();
    EXPECT_EQ(fchownat(AT_FDCWD, path.c_str(), owner, group, 0), 0);
    fclose(file);
    model.fill(entries);
    const size_t syncs = calls::made(calls::kFsync);
    const uint32_t status = KSCacheReplaceFile(model.cache(), path.c_str(), nullptr, nullptr);
    const bool replaced = calls::made(calls::kFsync) == syncs + 2;
    EXPECT_TRUE(status == 0 ? replaced : calls::failures() > 0) << status;
    std::error_code none;
    EXPECT_EQ(std::filesystem::file_size(path, none) != old.size(), replaced);
    EXPECT_FALSE(calls::failures() < 2 && std::filesystem::exists(path + ".new", none));
    struct stat found {};
    EXPECT_TRUE(stat(path.c_str(), &found) == 0 && found.st_uid == owner && found.st_gid == group);
    model.compareAll();
}

/// A link that leads to nothing, under a hold.
void replaceThroughLink(CacheModel& model, uint32_t entries) {
    const std::string target = kFolder.path + "/target", link = kFolder.path + "/link";
    std::error_code none;
    std::filesystem::remove(target, none);
    std::filesystem::create_symlink("target", link, none);
    model.fill(entries);
    KSCacheHold* hold = nullptr;
    uint32_t status = KSCacheHoldFile(link.c_str(), &hold);
    EXPECT_EQ(status == 0, hold != nullptr);
    const size_t syncs = calls::made(calls::kFsync);
    if (hold != nullptr) status = KSCacheReplaceFile(model.cache(), link.c_str(), hold, nullptr);
    KSCacheReleaseFile(hold);
    EXPECT_TRUE(status == 0 || calls::failures() > 0);
    EXPECT_EQ(std::filesystem::exists(target, none), calls::made(calls::kFsync) == syncs + 2);
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

INSTANTIATE_TEST_SUITE_P(
    Scenarios, CacheTorture,
    testing::Values(Scenario{"create", 0, 20, 0, 0, fill}, Scenario{"growth", 0, 6, 0, 5000, fill},
                    Scenario{"lockedGrowth", 0, 6, 1, 3000, fill},
                    Scenario{"reset", 1080, 4, 0, 2500, fillAgain},
                    Scenario{"lockedReset", 2000, 1, 1, 2100, fillAgain},
                    Scenario{"hugePages", 40000, 19, 0, 40100, fill},
                    Scenario{"restart", 0, 6, 1, 4000, goOn},
                    Scenario{"replace", 0, 6, 0, 1500, replaceFile},
                    Scenario{"replaceThroughLink", 0, 6, 0, 10, replaceThroughLink},
                    Scenario{"deep", 0, 1, 0, 1600, goOn}),
    [](const auto& given) { return given.param.name; });

}  // namespace
