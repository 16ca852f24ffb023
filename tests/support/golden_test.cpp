// Replays the transcripts in tests/golden/. A transcript is the commands of a scenario (lines with
// ">") and, after each, what the platform was told and what came back. The scenario is run and the
// transcript written anew from it; both must be the same to the letter. In tests/golden/README the
// commands are explained.
#include "tests/support/golden.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/status.h"
#include "platform/support.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace golden {

uint32_t number(const std::string& word) {
    return word.empty() ? 0 : static_cast<uint32_t>(std::stoll(word));
}

std::string withSlot(const std::string& result) {
    return result + ", slot " + std::to_string(*__cr_errno_location());
}

std::string status(uint32_t status) {
    return withSlot(std::to_string(status));
}

namespace {

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

const Verbs kCommon = {
    {"trace",
     [](const Words& w) {
         *__qlxlog_trace_location() = w[1] == "on" ? 1 : 0;
         return std::string();
     }},
    {"fail", fail},
    {"slot",
     [](const Words& w) {
         *__cr_errno_location() = number(w[1]);
         return std::string();
     }},
};

class Replay {
  public:
    Replay() {
        std::filesystem::current_path(testing::TempDir());
        scripted::reset();
        calls::watch();
        scenes_.push_back(cacheScene());
        scenes_.push_back(sessionScene());
    }
    ~Replay() {
        scenes_.clear();
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
        const Verb* verb = find(words.at(0));
        if (verb == nullptr) return "no such command\n";
        words.resize(std::max<size_t>(words.size(), 7));
        const std::string result = (*verb)(words);
        return scripted::takeRecord() + (result.empty() ? "" : "= " + result + "\n");
    }

  private:
    const Verb* find(const std::string& name) const {
        if (const auto verb = kCommon.find(name); verb != kCommon.end()) return &verb->second;
        for (const auto& scene : scenes_) {
            const auto verb = scene->verbs.find(name);
            if (verb != scene->verbs.end()) return &verb->second;
        }
        return nullptr;
    }

    std::vector<std::unique_ptr<Scene>> scenes_;
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
}  // namespace golden
