// Damaged cache files, the checksum's two versions, and a tree that is as deep as it has entries.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

#include "kscache/kscache_adler.h"
#include "kscache/kscache_int.h"
#include "tests/support/cache_model.h"
#include "tests/support/folder.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"
#include "tests/support/torture.h"

namespace {

constexpr size_t kStack = size_t{64} << 10;

using Bytes = std::string;

struct Destroy {
    void operator()(KSCache* cache) const { KSCacheDestroy(cache); }
};
using Cache = std::unique_ptr<KSCache, Destroy>;

Cache makeCache(uint32_t bits) {
    return Cache(KSCacheCreate(0, bits, 0, nullptr, nullptr));
}

// Made before any process is forked, which would have a folder of its own.
const Folder kFolder;

/// The file of the test that runs.
std::string path() {
    return kFolder.path + "/" + testing::UnitTest::GetInstance()->current_test_info()->name();
}

/// A cache of the keys and values 1, 2, 3 and so on.
Cache filled(uint64_t entries) {
    Cache cache = makeCache(4);
    for (uint64_t i = 1; i <= entries; ++i)
        KSCacheAdd(cache.get(), std::array<uint64_t, 4>{i}.data(), 3, i, nullptr);
    return cache;
}

TEST(CacheFile, DamageIsNeverTakenForEntries) {
    constexpr size_t kHeader = scripted::kMagicLength, kRecord = 41;
    const Cache cache = makeCache(4);
    for (const uint8_t type : std::initializer_list<uint8_t>{1, 3, 3, 7}) {
        const uint8_t key[32] = {type, static_cast<uint8_t>(cache->cachedItems)};
        KSCacheAdd(cache.get(), key, type, 0x0102030405060708 + type, nullptr);
    }
    ASSERT_EQ(KSCacheSave(cache.get(), path().c_str(), nullptr), 0U);
    std::ifstream file(path(), std::ios::binary);
    const Bytes whole{std::istreambuf_iterator<char>(file), {}};
    ASSERT_EQ(whole.size(), kHeader + 4 * kRecord);

    const auto load = [&](const Bytes& bytes) {
        std::ofstream(path(), std::ios::binary).write(bytes.data(), std::ssize(bytes));
        const Cache loaded = makeCache(4);
        uint64_t count = 99;
        const uint32_t status = KSCacheLoad(loaded.get(), path().c_str(), &count);
        EXPECT_EQ(loaded->cachedItems, status == 0 ? count : 0);
        EXPECT_EQ(count == 99, status != 0);
        return std::pair(status, status == 0 ? count : 0);
    };
    const std::pair kCorrupt(uint32_t{CR_STATUS_CORRUPT}, uint64_t{0});
    EXPECT_EQ(load(whole), std::pair(0U, uint64_t{4}));
    for (size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(load(whole.substr(0, length)).first,
                  length < kHeader ? CR_STATUS_BAD_HANDLE : CR_STATUS_CORRUPT);
    }
    for (size_t bit = 0; bit < 8 * whole.size(); ++bit) {
        Bytes flipped = whole;
        flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
        const auto [status, count] = load(flipped);
        // The scripted header's digits have two cases, and its last byte means nothing.
        const bool harmless = bit / 8 < kHeader && count == 4;
        EXPECT_TRUE(harmless || status == CR_STATUS_CORRUPT || status == CR_STATUS_BAD_HANDLE)
            << bit;
    }
    // Two bytes that change places leave the sum of the bytes as it is, not the sum of these sums.
    Bytes swapped = whole;
    std::swap(swapped[kHeader], swapped[kHeader + kRecord]);
    EXPECT_EQ(load(swapped), kCorrupt);
    // A piece of a record whose checksum is right: it is left out. The checksum has 32 bits, the
    // header room for 64.
    const Bytes payload = whole.substr(kHeader, kRecord + 7);
    for (const uint64_t more : {uint64_t{0}, uint64_t{1} << 32}) {
        char header[kHeader + 1];
        snprintf(header, sizeof header, "40%016lx\n",
                 more + kspool::adlerFold(1, payload.data(), payload.size()));
        EXPECT_EQ(load(header + payload), more == 0 ? std::pair(0U, uint64_t{1}) : kCorrupt);
    }
}

/// The byte that changes between the two passes of a load; negative: where the file is cut.
long changeAt;

TEST(CacheFile, ChangedWhileItIsReadGivesNoWrongValue) {
    constexpr long kHeader = scripted::kMagicLength, kBlock = 640 * 41;
    const std::pair<long, uint64_t> rows[] = {{kHeader + 33, 0},
                                              {kHeader + kBlock + 41 * 7 + 40, 640},
                                              {-(kHeader + 2 * kBlock + 1), 1280},
                                              {kHeader + 1500 * 41, 1500}};
    for (const auto& [at, expected] : rows) {
        changeAt = at;
        ASSERT_EQ(KSCacheSave(filled(1500).get(), path().c_str(), nullptr), 0U);
        scripted::reset();
        calls::watch();
        calls::beforeSeeks([] {
            FILE* file = fopen(path().c_str(), "r+");
            fseek(file, changeAt, SEEK_SET);
            if (changeAt < 0 ? ftruncate(fileno(file), -changeAt) != 0 : fputc(77, file) != 77)
                abort();
            fclose(file);
        });
        const Cache loaded = makeCache(4);
        uint64_t count = 99;
        EXPECT_EQ(KSCacheLoad(loaded.get(), path().c_str(), &count), 0U);
        calls::leaveAlone();
        EXPECT_EQ(count, expected);
        EXPECT_EQ(std::exchange(*__cr_errno_location(), 0), count < 1500 ? CR_STATUS_CORRUPT : 0);
        EXPECT_EQ(scripted::takeRecord().find("WarningA(32") != std::string::npos, count < 1500);
        for (uint64_t i = 1, value = 0; i <= count; ++i, value = 0) {
            KSCacheFetch(loaded.get(), std::array<uint64_t, 4>{i}.data(), 3, &value);
            EXPECT_EQ(value, i);
        }
    }
}

/// What is read back is another cache.
TEST(CacheFile, ThatADiskKeptWronglyReplacesNothing) {
    const Cache cache = filled(3);
    ASSERT_EQ(KSCacheSave(filled(2).get(), path().c_str(), nullptr), 0U);
    ASSERT_EQ(KSCacheSave(filled(4).get(), (path() + ".other").c_str(), nullptr), 0U);
    calls::watch();
    calls::beforeSeeks([] {
        std::ifstream from(path() + ".other", std::ios::binary);
        std::ofstream(path() + ".new", std::ios::binary) << from.rdbuf();
    });
    EXPECT_EQ(KSCacheReplaceFile(cache.get(), path().c_str(), nullptr, nullptr), CR_STATUS_CORRUPT);
    calls::leaveAlone();
    uint64_t count = 0;
    EXPECT_EQ(KSCacheLoad(makeCache(4).get(), path().c_str(), &count), 0U);
    EXPECT_EQ(count, 2U);
    // A disk that takes nothing, without saying why.
    unlink(path().c_str());
    calls::watch();
    calls::cutTransfers(0);
    EXPECT_EQ(KSCacheReplaceFile(cache.get(), path().c_str(), nullptr, nullptr), 1000U + EIO);
    calls::leaveAlone();
}

/// Two processes replace a file while a third one loads it.
TEST(CacheFile, ReplacedByTwoProcessesIsWhole) {
    constexpr uint64_t kEntries[] = {700, 1300};
    for (const uint64_t entries : kEntries) {
        if (fork() != 0) continue;
        const Cache cache = filled(entries);
        for (int left = 200; left > 0;) {
            const uint32_t status =
                KSCacheReplaceFile(cache.get(), path().c_str(), nullptr, nullptr);
            if (status != 0 && status != CR_STATUS_BUSY) _exit(1);
            left -= status == 0;
        }
        _exit(0);
    }
    size_t whole = 0;
    int code = 0;
    for (int ended = 0; ended<2; ended += waitpid(-1, &code, WNOHANG)> 0) {
        EXPECT_EQ(code, 0);
        uint64_t count = 0;
        const uint32_t status = KSCacheLoad(makeCache(4).get(), path().c_str(), &count);
        EXPECT_TRUE(status == 0 ? count == kEntries[0] || count == kEntries[1]
                                : status == 1000 + ENOENT && whole == 0)
            << status << " " << count;
        whole += status == 0;
    }
    EXPECT_GT(whole, 0U);
    EXPECT_NE(access((path() + ".new").c_str(), F_OK), 0);
    unlink(path().c_str());
}

/// Those who share a hold: a second thread in the midst of a replacement, then a child process that
/// gives the hold back. A lock file may hold zeros after a loss of power.
TEST(CacheFile, OfASharedHoldIsReplacedByOneAtATime) {
    static KSCacheHold* hold = nullptr;
    static std::vector<uint32_t> others;
    const auto replace = [](uint64_t entries, const KSCacheHold* with) {
        return KSCacheReplaceFile(filled(entries).get(), path().c_str(), with, nullptr);
    };
    std::ofstream(path() + ".lock") << Bytes(6, '\0');
    EXPECT_EQ(KSCacheHoldFile(path().c_str(), &hold), 0U);
    calls::watch();
    calls::beforeSeeks([] {
        if (!others.empty()) return;
        others.push_back(0);
        others[0] = KSCacheReplaceFile(filled(2).get(), path().c_str(), hold, nullptr);
    });
    EXPECT_EQ(replace(3, hold), 0U);
    calls::leaveAlone();
    EXPECT_EQ(others, std::vector<uint32_t>{CR_STATUS_BUSY});
    uint64_t count = 0;
    EXPECT_EQ(KSCacheLoad(makeCache(4).get(), path().c_str(), &count), 0U);
    EXPECT_EQ(count, 3U);
    if (fork() == 0) {
        KSCacheReleaseFile(hold);
        _exit(0);
    }
    wait(nullptr);
    EXPECT_EQ(replace(4, hold), CR_STATUS_BAD_HANDLE);
    KSCacheHold* next = nullptr;
    EXPECT_EQ(KSCacheHoldFile(path().c_str(), &next), 0U);
    EXPECT_EQ(replace(4, hold), CR_STATUS_BUSY);
    KSCacheReleaseFile(hold);
    EXPECT_GT(std::filesystem::file_size(path() + ".lock"), 0U);
    EXPECT_EQ(replace(5, next), 0U);
    KSCacheReleaseFile(next);
}

/// Whoever has closed the standard descriptors still prints, and logs.
TEST(CacheFile, IsNoStandardDescriptor) {
    static int landed = 0;
    const Cache cache = filled(1);
    KSCacheHold* hold = nullptr;
    const int kept[] = {dup(0), dup(1), dup(2)};
    for (const int fd : {0, 1, 2})
        close(fd);
    calls::watch();
    calls::beforeSeeks([] {
        for (const int fd : {0, 1, 2})
            landed += write(fd, "message", 7) > 0;
    });
    std::vector<uint32_t> results{KSCacheHoldFile(path().c_str(), &hold),
                                  KSCacheReplaceFile(cache.get(), path().c_str(), hold, nullptr),
                                  KSCacheSave(cache.get(), path().c_str(), nullptr),
                                  KSCacheLoad(cache.get(), path().c_str(), nullptr)};
    KSCacheReleaseFile(hold);
    calls::leaveAlone();
    for (const int fd : {0, 1, 2}) {
        landed += fcntl(fd, F_GETFD) != -1;
        dup2(kept[fd], fd);
        close(kept[fd]);
    }
    EXPECT_EQ(landed, 0);
    EXPECT_EQ(results, (std::vector<uint32_t>{0, 0, 0, 1000U + EBADF}));
    EXPECT_EQ(KSCacheLoad(makeCache(4).get(), path().c_str(), nullptr), 0U);
}

TEST(Adler, BothVersionsGiveTheSumsOfTheDefinition) {
    std::mt19937 random(1);
    for (const size_t length :
         std::initializer_list<size_t>{0, 1, 63, 64, 65, 5503, 5504, 5568, 70000}) {
        for (const bool highest : {true, false}) {
            std::vector<uint8_t> bytes(length + 3, 255);
            for (uint8_t& byte : bytes)
                byte = highest ? byte : static_cast<uint8_t>(random());
            uint64_t first = 65520, second = 65520;
            for (size_t i = 0; i < length; ++i) {
                first = (first + bytes[i + 3]) % 65521;
                second = (second + first) % 65521;
            }
            constexpr uint32_t kStart = 65520U << 16 | 65520U;
            EXPECT_EQ(kspool::adlerFold(kStart, bytes.data() + 3, length), second << 16 | first);
            EXPECT_EQ(kspool::adlerFoldPlain(kStart, bytes.data() + 3, length),
                      second << 16 | first);
        }
    }
}

/// Everything that goes through trees. A recursion over this chain would overflow the stack: no
/// frame that keeps a node and a return address is smaller than 32 bytes. drop() leaves a third.
void* liveDeep(void*) {
    constexpr uint32_t kEntries = 3 * kStack / 32;
    CacheModel model({.bits = 1}, path());
    model.fill(kEntries);
    model.sortedReport();
    model.walk();
    model.restart();
    model.drop(kEntries);
    model.reclaim();
    model.compareAll();
    return nullptr;
}

void* useFiles(void* cache) {
    KSCacheSave(static_cast<KSCache*>(cache), path().c_str(), nullptr);
    KSCacheReplaceFile(static_cast<KSCache*>(cache), path().c_str(), nullptr, nullptr);
    KSCacheLoad(static_cast<KSCache*>(cache), path().c_str(), nullptr);
    return nullptr;
}

void* checkLimit(void* cache) {
    KSCacheCheck(static_cast<KSCache*>(cache), 1);
    return nullptr;
}

/// Room is reserved for all records before the first is written, and given back if they are not.
TEST(CacheFile, KeepsNoRoomThatItCouldNotFill) {
    const torture::Watched watched;
    const Cache cache = filled(20000);
    calls::fail({.call = calls::kWrite, .nth = 2});
    EXPECT_EQ(KSCacheSave(cache.get(), path().c_str(), nullptr), 0);
    struct stat found {};
    ASSERT_EQ(stat(path().c_str(), &found), 0);
    EXPECT_EQ(found.st_size, 19 + (20000 - 16384) * 41);
    EXPECT_LT(found.st_blocks * 512, found.st_size + (64 << 10));
}

/// As much as the header says.
TEST(CacheFile, NeedsLittleStack) {
    const Cache cache = filled(20000);
    for (const auto& [work, stack] :
         {std::pair(&liveDeep, kStack), {useFiles, 48 << 10}, {checkLimit, 80 << 10}}) {
        pthread_attr_t small;
        pthread_t thread = 0;
        pthread_attr_init(&small);
        pthread_attr_setstacksize(&small, stack);
        ASSERT_EQ(pthread_create(&thread, &small, work, cache.get()), 0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&small);
    }
    EXPECT_EQ(cache->cachedItems, 0U);
}

}  // namespace
