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

template <typename Scenario>
void run(Scenario scenario) {
    ++scenarios;
    for (const bool fromThenOn : {false, true}) {
        for (size_t nth = 1;; ++nth) {
            what = "call " + std::to_string(nth) + (fromThenOn ? " and all after it" : "");
            SCOPED_TRACE(what);
            scripted::reset();
            calls::watch();
            calls::fail({.nth = nth, .fromThenOn = fromThenOn});
            scenario();
            const size_t failed = calls::failures();
            EXPECT_EQ(calls::live(), 0U);
            calls::leaveAlone();
            if (failed == 0 || testing::Test::HasFailure()) break;
            ++injections;
        }
    }
}

}  // namespace torture

#endif
