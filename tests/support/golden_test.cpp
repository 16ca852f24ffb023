// Replays the transcripts in tests/golden/. A transcript is the commands of a scenario (lines with
// ">") and, after each, what the platform was told and what came back. The scenario is run and the
// transcript written anew from it; both must be the same to the letter. In tests/golden/README the
// commands are explained.
#include "tests/support/golden.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>

#include "platform/status.h"
#include "platform/support.h"
#include "tests/support/folder.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace golden {
namespace {

void fail(Objects&, const Words& w) {
    calls::Failure failure;
    failure.pagesOnly = w[1] == "pages";
    failure.call = calls::callNamed(failure.pagesOnly ? "mmap" : w[1]);
    failure.nth = operations::number(w[2]);
    failure.fromThenOn = w[3] == "on";
    static const std::map<std::string, int> kErrors = {{"EACCES", EACCES},
                                                       {"EAGAIN", EAGAIN},
                                                       {"EINVAL", EINVAL},
                                                       {"ENOTSUP", ENOTSUP},
                                                       {"EPERM", EPERM}};
    const auto error = kErrors.find(w[4]);
    failure.error = error != kErrors.end() ? error->second : ENOMEM;
    calls::fail(failure);
}

const Operations& commonCommands() {
    static const Operations kRows = {
        {"trace", quietly([](Objects&, const Words& w) {
             *__qlxlog_trace_location() = w[1] == "on" ? 1 : 0;
         })},
        {"slot", quietly([](Objects&, const Words& w) {
             *__cr_errno_location() = static_cast<uint32_t>(operations::number(w[1]));
         })},
        {"fail", quietly(fail)},
    };
    return kRows;
}

/// Watches each call: its time, which may not grow with the square of an answer's length, and
/// errno, which a number out of range may not change, since no call of the system has failed.
struct Watched : Objects {
    void enter() override {
        errno = 0;
        start = clock();
    }
    void leave() override {
        EXPECT_NE(errno, ERANGE);
        EXPECT_LT(clock() - start, CLOCKS_PER_SEC);
    }
    clock_t start = 0;
};

/// A record without what differs from run to run: the scenario's folder and the process.
std::string lasting(std::string record) {
    for (const auto& [from, to] :
         {std::pair(std::filesystem::current_path().string() + "/", std::string()),
          std::pair(", " + std::to_string(getpid()) + ")", std::string(", PID)"))}) {
        for (size_t at = 0; (at = record.find(from, at)) != std::string::npos;)
            record.replace(at, from.size(), to);
    }
    return record;
}

/// Runs the commands of a transcript, and returns it as they make it.
std::string replay(const std::string& transcript) {
    Watched objects;
    std::istringstream lines(transcript);
    std::string actual;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') actual += line + "\n";
        if (line.compare(0, 2, "> ") != 0) continue;
        const Words words(line.substr(2));
        std::string result = "no such command";
        for (const auto* rows :
             {&commonCommands(), &cacheCommands(), &sessionCommands(), &operations::client()}) {
            const auto row = rows->find(words[0]);
            if (row == rows->end()) continue;
            result = row->second.run(objects, words);
            break;
        }
        actual += line + "\n" + lasting(scripted::takeRecord());
        if (!result.empty()) actual += "= " + result + "\n";
    }
    KSCacheDestroy(objects.cache);
    return actual;
}

class Golden : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(Golden, IsReplayedToTheLetter) {
    std::ifstream file(GetParam());
    ASSERT_TRUE(file);
    const std::string expected(std::istreambuf_iterator<char>(file), {});
    const Folder folder;
    std::filesystem::current_path(folder.path);
    umask(0);  // modes are as they were asked for
    scripted::reset();
    calls::watch();
    const std::string actual = replay(expected);
    EXPECT_EQ(calls::live(), 0U);
    calls::leaveAlone();
    std::filesystem::current_path("/");
    EXPECT_EQ(expected, actual);
    if (expected != actual) {
        const std::string heard = testing::TempDir() + GetParam().filename().string();
        std::ofstream(heard) << actual;
        printf("heard: %s\n", heard.c_str());
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
