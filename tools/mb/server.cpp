// time and ping: the server itself.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <vector>

#include "tools/mb/commands.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace mb {
namespace {

using nlohmann::ordered_json;

std::string differenceText(int32_t seconds) {
    if (seconds == 0) return "as the local clock";
    const std::string amount = tool::humanCount(static_cast<uint64_t>(std::abs(int64_t{seconds})));
    return amount + (seconds > 0 ? " s ahead of" : " s behind") + " the local clock";
}

double median(std::vector<double> sorted) {
    const size_t half = sorted.size() / 2;
    return sorted.size() % 2 == 1 ? sorted[half] : (sorted[half - 1] + sorted[half]) / 2;
}

void printPings(const Options& options, const std::vector<double>& times) {
    std::vector<double> sorted = times;
    std::sort(sorted.begin(), sorted.end());
    if (options.json) {
        ordered_json report = {{"requests", options.count}, {"milliseconds", times}};
        if (!sorted.empty()) {
            report["min"] = sorted.front();
            report["median"] = median(sorted);
            report["max"] = sorted.back();
        }
        tool::printJson(report, 2);
        return;
    }
    printf("%zu of %u answered", sorted.size(), options.count);
    if (!sorted.empty()) {
        printf(", min/median/max %.3f/%.3f/%.3f ms", sorted.front(), median(sorted), sorted.back());
    }
    printf("\n");
}

}  // namespace

ExitCode time(const Options& options) {
    tool::Session session(options.session);
    uint32_t answer = 0;
    const std::time_t before = std::time(nullptr);
    session.attempt("", [&](MBSession* s) { return MBGetTime(s, &answer); });
    const std::time_t local = before + (std::time(nullptr) - before) / 2;
    if (answer == 0) {
        throw tool::Failure("the answer holds no time (server " + session.server() + ")");
    }
    // The answer is the low 32 bits of the time. They are the whole time while the two clocks
    // differ by less than 68 years.
    const auto difference = static_cast<int32_t>(answer - static_cast<uint32_t>(local));
    const int64_t server = local + difference;
    if (options.json) {
        tool::printJson({{"time", server}, {"difference", difference}}, 2);
    } else {
        printf("%s, %s\n", tool::isoTime(server).c_str(), differenceText(difference).c_str());
    }
    return ExitCode::kOk;
}

ExitCode ping(const Options& options) {
    tool::Session session(options.session);
    tool::Steps steps;
    std::vector<double> times;
    for (uint32_t i = 1; i <= options.count; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const bool answered = steps.run([&] {
            session.attemptEvent("request " + std::to_string(i),
                                 [](MBSession* s) { return MBKeepAlive(s, 0); });
        });
        const std::chrono::duration<double, std::milli> spent =
            std::chrono::steady_clock::now() - start;
        if (!answered) continue;
        times.push_back(spent.count());
        if (options.json || options.session.quiet) continue;
        printf("%s: answer %u: %.3f ms\n", session.server().c_str(), i, spent.count());
        fflush(stdout);
    }
    printPings(options, times);
    return steps.code();
}

}  // namespace mb
