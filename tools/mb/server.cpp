// time and ping: the server itself.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <vector>

#include "platform/status.h"
#include "platform/ws.h"
#include "tools/mb/commands.h"
#include "tools/shared/json.h"
#include "tools/shared/signals.h"
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

void printPings(const Options& options, uint32_t requests, const std::vector<double>& times) {
    std::vector<double> sorted = times;
    std::sort(sorted.begin(), sorted.end());
    if (options.json) {
        const bool none = sorted.empty();
        tool::printJson({{"requests", requests},
                         {"milliseconds", times},
                         {"min", none ? ordered_json() : ordered_json(sorted.front())},
                         {"median", none ? ordered_json() : ordered_json(median(sorted))},
                         {"max", none ? ordered_json() : ordered_json(sorted.back())}},
                        2);
        return;
    }
    printf("%zu of %u answered", sorted.size(), requests);
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
    // The answer has only the low 32 bits of the time. The difference is correct as long as the two
    // clocks differ by less than 68 years.
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
    tool::Interrupts interrupts;
    interrupts.abort(session.handle());
    tool::Steps steps;
    std::vector<double> times;
    uint32_t requests = 0;
    while (requests < options.count && !tool::Interrupts::asked()) {
        bool aborted = false;
        const std::string name = std::to_string(requests + 1);
        const auto start = std::chrono::steady_clock::now();
        const bool answered = steps.run([&] {
            session.attemptEvent(
                "request " + name,
                [&](MBSession* s) {
                    const uint32_t result = MBKeepAlive(s, 0);
                    aborted = result == WS_STATUS_ABORTED && tool::Interrupts::asked();
                    return aborted ? uint32_t{CR_STATUS_OK} : result;
                },
                "keepalive");
        });
        const std::chrono::duration<double, std::milli> spent =
            std::chrono::steady_clock::now() - start;
        if (aborted) break;
        ++requests;
        if (!answered) continue;
        times.push_back(spent.count());
        if (options.json || options.session.quiet) continue;
        printf("%s: answer %s: %.3f ms\n", session.server().c_str(), name.c_str(), spent.count());
        fflush(stdout);
    }
    printPings(options, requests, times);
    return tool::Interrupts::asked() ? ExitCode::kInterrupted : steps.code();
}

}  // namespace mb
