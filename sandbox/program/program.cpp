#include "sandbox/program/program.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "sandbox/scenarios.h"

namespace sandbox::program {

void complain(const std::string& text) {
    fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
}

void fail(const std::string& text) {
    throw std::runtime_error(text);
}

std::string faultsText(const std::string& nameOrFile) {
    if (nameOrFile.empty()) return {};
    const auto list = scenarioList();
    const bool named = std::any_of(list.begin(), list.end(),
                                   [&](const auto& one) { return one["name"] == nameOrFile; });
    if (named || access(nameOrFile.c_str(), F_OK) != 0) return scenarioText(nameOrFile);
    std::ifstream stream(nameOrFile, std::ios::binary);
    if (!stream) fail(nameOrFile + ": " + strerror(errno));
    return {std::istreambuf_iterator<char>(stream), {}};
}

sigset_t blockSignals(std::initializer_list<int> numbers) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : numbers)
        sigaddset(&set, number);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return set;
}

void flush() {
    // An earlier write may have failed, with nothing left to flush.
    if (fflush(stdout) != 0 || ferror(stdout) != 0) fail("the output could not be written");
}

}  // namespace sandbox::program
