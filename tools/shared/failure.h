// How programs report that something could not be done. There is one way:
//
//  1. A function that cannot do its work throws Failure. runProgram() catches it, prints its text
//     once as "PROGRAM: TEXT", and exits with its code.
//  2. A function whose failure the caller reports and passes over, as a file that cannot be read,
//     returns that problem as std::optional<std::string>: nothing when all is well.
//  3. Where one step may fail and the others are still to be done, Steps runs them.
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

/// A program that answers a question (kspool-cache) does as diff and cmp do: 0 for yes, kNo, and
/// kTrouble when something kept it from an answer.
enum class ExitCode : int {
    kOk = 0,
    kFailed = 1,   ///< the work could not be done
    kUsage = 2,    ///< bad options or arguments
    kPartial = 3,  ///< done, but something was left out and reported
    kDiffers = 4,  ///< the local files differ from what is recorded of them
    kHeld = 5,     ///< another process holds the cache file

    kNothing = 10,     ///< the server knows nothing of what was asked for
    kPermission = 12,  ///< the server denied permission
    kNetwork = 13,     ///< no answer from the server

    kInterrupted = 128,  ///< a signal has ended the work: Interrupts::endBySignal()

    kNo = 1,       ///< the answer is no: damaged, different
    kTrouble = 2,  ///< no answer, bad options included
};

/// Names the program in all that it complains of, with its exit code for failures that bring none
/// of their own. runProgram() calls this first.
void setProgram(const char* name, ExitCode failed);

const char* programName();

/// Writes "PROGRAM: TEXT" as one line on stderr, with each control character as \xHH: a terminal
/// would obey one that a server or a file name brought.
void complain(const std::string& text);

class Failure : public std::runtime_error {
  public:
    /// With the exit code that the program has for failures.
    explicit Failure(const std::string& text);
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}

    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

/// Runs steps that do not depend on each other: a failure is complained of at once, later steps are
/// run all the same, and the highest exit code is kept.
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
