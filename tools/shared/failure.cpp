#include "tools/shared/failure.h"

#include <cstdio>
#include <string_view>

#include "common/ascii.h"

namespace tool {
namespace {

const char* nameOfProgram = "kspool";
ExitCode codeOfFailures = ExitCode::kFailed;

}  // namespace

void setProgram(const char* name, ExitCode failed) {
    nameOfProgram = name;
    codeOfFailures = failed;
}

const char* programName() {
    return nameOfProgram;
}

void complain(const std::string& text) {
    std::string line = std::string(nameOfProgram) + ": ";
    kspool::visible(text, [&](std::string_view piece) { line += piece == "\n" ? "\\x0a" : piece; });
    fprintf(stderr, "%s\n", line.c_str());
}

Failure::Failure(const std::string& text) : Failure(codeOfFailures, text) {}

}  // namespace tool
