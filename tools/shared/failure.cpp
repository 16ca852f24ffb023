#include "tools/shared/failure.h"

#include <cstdio>

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
    fprintf(stderr, "%s: %s\n", nameOfProgram, text.c_str());
}

Failure::Failure(const std::string& text) : Failure(codeOfFailures, text) {}

}  // namespace tool
