// Runs a scenario again and again with its n-th fallible call failing, for every n, once and from
// then on, until a run has no such call.
#ifndef TESTS_TORTURE_H
#define TESTS_TORTURE_H

#include <gtest/gtest.h>

#include <string>

#include "tests/support/scripted_platform.h"
#include "tests/support/system_calls.h"

namespace torture {

/// So far, and their runs with a failing call.
inline size_t scenarios = 0;
inline size_t injections = 0;

/// The failing calls of the present run.
inline std::string what;

/// Counts and watches calls, and looks for leaks in the end.
struct Watched {
    Watched() {
        scripted::reset();
        calls::watch();
    }
    ~Watched() {
        EXPECT_EQ(calls::live(), 0U);
        calls::leaveAlone();
    }
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
};

template <typename Scenario>
void run(Scenario scenario) {
    ++scenarios;
    for (const bool fromThenOn : {false, true}) {
        for (size_t nth = 1;; ++nth) {
            what = "call " + std::to_string(nth) + (fromThenOn ? " and all after it" : "");
            SCOPED_TRACE(what);
            const Watched watched;
            calls::fail({.nth = nth, .fromThenOn = fromThenOn});
            scenario();
            if (calls::failures() == 0 || testing::Test::HasFailure()) break;
            ++injections;
        }
    }
}

}  // namespace torture

#endif
