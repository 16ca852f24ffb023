// How programs report failures. There is one way:
//
//  1. A function that cannot do its work throws Failure. runProgram() catches it, prints its text
//     once as "PROGRAM: TEXT", and exits with its code.
//  2. A function whose failure the caller reports and skips, such as an unreadable file, returns
//     the problem as std::optional<std::string>: nullopt for success.
//  3. Where one step may fail and the others must still be done, Steps runs them.
//
// Exit codes that are results and not failures ("different", "done in part") are returned.
//
// Thread rule: one thread. The program's name is set before any work begins, and only read from
// then on.
#ifndef TOOLS_SHARED_FAILURE_H
#define TOOLS_SHARED_FAILURE_H

#include <algorithm>
#include <stdexcept>
#include <string>

namespace tool {

/// A program that answers a question (kspool-cache) follows diff and cmp: 0 for yes, kNo, and
/// kTrouble if there is no answer.
enum class ExitCode : int {
    kOk = 0,
    kFailed = 1,   ///< the work could not be done
    kUsage = 2,    ///< bad options or arguments
    kPartial = 3,  ///< done, but something was left out and reported
    kDiffers = 4,  ///< the local files differ from what is recorded of them
    kHeld = 5,     ///< another process holds the cache file

    kNothing = 10,     ///< the server does not have what was asked for
    kPermission = 12,  ///< the server denied permission
    kNetwork = 13,     ///< no answer from the server

    kInterrupted = 128,  ///< a signal has ended the work: Interrupts::endBySignal()

    kNo = 1,       ///< the answer is no: damaged, different
    kTrouble = 2,  ///< no answer, bad options included
};

/// Sets the program's name for messages, and its exit code for failures without a code of their
/// own. runProgram() calls this first.
void setProgram(const char* name, ExitCode failed);

const char* programName();

/// Writes "PROGRAM: TEXT" as one line on stderr, with each control character as \xHH: a terminal
/// would interpret those of a server's text or a file name.
void complain(const std::string& text);

class Failure : public std::runtime_error {
  public:
    /// With the program's exit code for failures.
    explicit Failure(const std::string& text);
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}

    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

/// Runs independent steps: reports a failure at once, runs the later steps nevertheless, and keeps
/// the highest exit code.
class Steps {
  public:
    /// True when the step was done.
    template <typename Step>
    bool run(Step step) {
        try {
            step();
            return true;
        } catch (const Failure& failure) {
            complain(failure.what());
            code_ = std::max(code_, failure.code());
            return false;
        }
    }

    ExitCode code() const { return code_; }
    bool allDone() const { return code_ == ExitCode::kOk; }

  private:
    ExitCode code_ = ExitCode::kOk;
};

}  // namespace tool

#endif
