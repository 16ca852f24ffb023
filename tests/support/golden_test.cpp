// Replays the transcripts in tests/golden/. A transcript is the commands of a scenario (lines with
// ">") and, after each, what the platform was told and what came back. The scenario is run and the
// transcript written anew from it; both must be the same to the letter. In tests/golden/README the
// commands are explained.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

#include "kscache/kscache_int.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace {

using Words = std::vector<std::string>;

class Replay {
  public:
    Replay() {
        scripted::reset();
        calls::watch();
    }
    ~Replay() {
        KSCacheDestroy(cache_);
        calls::leaveAlone();
    }
    Replay(const Replay&) = delete;
    Replay& operator=(const Replay&) = delete;

    /// Runs a command and returns what its transcript holds.
    std::string run(const std::string& command) {
        std::istringstream stream(command);
        Words words;
        for (std::string word; stream >> word;)
            words.push_back(word);
        const auto verb = verbs_.find(words.at(0));
        if (verb == verbs_.end()) return "no such command\n";
        words.resize(6);
        const std::string result = verb->second(words);
        return scripted::takeRecord() + (result.empty() ? "" : "= " + result + "\n");
    }

  private:
    static uint32_t number(const std::string& word) {
        return word.empty() ? 0 : static_cast<uint32_t>(std::stoul(word));
    }
    static std::string withSlot(const std::string& result) {
        return result + ", slot " + std::to_string(*__cr_errno_location());
    }
    static std::string status(uint32_t status) { return withSlot(std::to_string(status)); }
    static void count(void*, void* arg) { ++*static_cast<unsigned*>(arg); }

    KSCache* handle() { return handleIs_ == "null" ? nullptr : cache_; }

    /// Hexadecimal digits, filled up with zeros; "null" for no key.
    const void* key(const std::string& hex) {
        if (hex == "null") return nullptr;
        memset(key_, 0, sizeof key_);
        for (size_t i = 0; i + 1 < hex.size(); i += 2) {
            key_[i / 2] = static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16));
        }
        return key_;
    }

    std::string lookup(const Words& w, bool counted) {
        uint64_t value = 0;
        const void* wanted = key(w[1]);
        uint64_t* out = w[3] == "novalue" ? nullptr : &value;
        const uint32_t result = counted ? KSCacheExists(handle(), wanted, number(w[2]), out)
                                        : KSCacheFetch(handle(), wanted, number(w[2]), out);
        return status(result) + (result == 0 ? ", value " + std::to_string(value) : "");
    }

    std::string fill(const Words& w) {
        std::map<uint32_t, int> results;
        for (uint32_t i = number(w[1]); i < number(w[2]); ++i) {
            uint32_t words[8] = {i, 0, 0, i};
            ++results[KSCacheAdd(cache_, words, 3, i, nullptr)];
        }
        std::string text;
        for (const auto& [result, times] : results) {
            text += (text.empty() ? "" : ", ") + std::to_string(times) + " times " +
                    std::to_string(result);
        }
        return withSlot(text);
    }

    std::string stats(const Words& w) {
        KSCacheStatsRecord s{};
        const uint32_t result = KSCacheStats(handle(), w[1] == "null" ? nullptr : &s);
        if (result != 0 || w[1] == "null") return status(result);
        std::ostringstream text;
        text << "size " << s.cacheSize << ", items " << s.cachedItems << ", hits " << s.hits
             << ", misses " << s.misses << ", free " << s.freeListCount << ", pages " << s.pageCount
             << ", available " << s.nodesAvailable << ", lock " << s.lockPages << ", area "
             << s.areaSize << ", bits " << s.bits << ", node " << s.nodeSize;
        return text.str();
    }

    std::string fail(const Words& w) {
        calls::Failure failure;
        failure.pagesOnly = w[1] == "pages";
        failure.call = calls::callNamed(failure.pagesOnly ? "mmap" : w[1]);
        failure.nth = number(w[2]);
        failure.fromThenOn = w[3] == "on";
        failure.error = w[4] == "EAGAIN" ? EAGAIN : w[4] == "EPERM" ? EPERM : ENOMEM;
        calls::fail(failure);
        return {};
    }

    KSCache* cache_ = nullptr;
    std::string handleIs_;
    uint8_t key_[32] = {};
    unsigned callbacks_ = 0;

    const std::map<std::string, std::function<std::string(const Words&)>> verbs_ = {
        {"trace",
         [](const Words& w) {
             *__qlxlog_trace_location() = w[1] == "on" ? 1 : 0;
             return std::string();
         }},
        {"fail", [this](const Words& w) { return fail(w); }},
        {"zero",
         [](const Words& w) {
             calls::place(w[1] == "on" ? calls::Placement::AtZero : calls::Placement::AsAsked);
             return std::string();
         }},
        {"slot",
         [](const Words& w) {
             *__cr_errno_location() = number(w[1]);
             return std::string();
         }},
        {"create",
         [this](const Words& w) {
             KSCacheDestroy(cache_);
             scripted::forgetPointers();
             cache_ = KSCacheCreate(number(w[1]), number(w[2]), number(w[3]), count, &callbacks_);
             return withSlot(cache_ != nullptr ? "a cache" : "no cache");
         }},
        {"reset",
         [this](const Words&) {
             KSCacheReset(cache_);
             return withSlot("reset");
         }},
        {"destroy",
         [this](const Words&) {
             KSCacheDestroy(std::exchange(cache_, nullptr));
             return withSlot(std::to_string(calls::live()) + " left");
         }},
        {"handle",
         [this](const Words& w) {
             handleIs_ = w[1];
             cache_->magic = w[1] == "bad" ? 0xBAD : kspool::kCacheMagic;
             return std::string();
         }},
        {"add",
         [this](const Words& w) {
             return status(KSCacheAdd(handle(), key(w[1]), number(w[2]), number(w[3]),
                                      w[4] == "arg" ? key_ : nullptr)) +
                    ", callbacks " + std::to_string(callbacks_);
         }},
        {"fill", [this](const Words& w) { return fill(w); }},
        {"exists", [this](const Words& w) { return lookup(w, true); }},
        {"fetch", [this](const Words& w) { return lookup(w, false); }},
        {"stats", [this](const Words& w) { return stats(w); }},
    };
};

class Golden : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(Golden, IsReplayedToTheLetter) {
    std::ifstream file(GetParam());
    ASSERT_TRUE(file);
    std::string expected, actual;
    Replay replay;
    for (std::string line; std::getline(file, line);) {
        expected += line + "\n";
        if (line.empty() || line[0] == '#') actual += line + "\n";
        if (line.rfind("> ", 0) == 0) actual += line + "\n" + replay.run(line.substr(2));
    }
    EXPECT_EQ(expected, actual);
    if (expected != actual) {
        const std::string heard = testing::TempDir() + GetParam().filename().string();
        std::ofstream(heard) << actual;
        printf("What was heard: %s\n", heard.c_str());
    }
}

std::vector<std::filesystem::path> transcripts() {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(GOLDEN_DIR)) {
        if (entry.path().extension() == ".txt") paths.push_back(entry.path());
    }
    return paths;
}

INSTANTIATE_TEST_SUITE_P(Transcripts, Golden, testing::ValuesIn(transcripts()),
                         [](const auto& given) { return given.param.stem().string(); });

}  // namespace
