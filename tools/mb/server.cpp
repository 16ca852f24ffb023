// time and ping: the server itself.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <vector>

#include "tools/mb/commands.h"
#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace pool {
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

int time(const Options& options) {
    Session session(options.session);
    if (const int code = session.code()) return code;
    uint32_t answer = 0;
    const std::time_t before = std::time(nullptr);
    if (const int code = session.attempt("", [&](MBSession* mb) { return MBGetTime(mb, &answer); }))
        return code;
    const std::time_t local = before + (std::time(nullptr) - before) / 2;
    if (answer == 0) {
        tool::complain(kProgram, "the answer holds no time (server " + session.server() + ")");
        return tool::kExitFailed;
    }
    // The answer is the time's low 32 bits; the local clock is right to 68 years.
    const auto difference = static_cast<int32_t>(answer - static_cast<uint32_t>(local));
    const int64_t server = local + difference;
    if (options.json) {
        tool::printJson({{"time", server}, {"difference", difference}}, 2);
    } else {
        printf("%s, %s\n", tool::isoTime(server).c_str(), differenceText(difference).c_str());
    }
    return tool::kExitOk;
}

int ping(const Options& options) {
    Session session(options.session);
    int worst = session.code();
    if (worst != tool::kExitOk) return worst;
    std::vector<double> times;
    for (uint32_t i = 1; i <= options.count; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const int code = session.attemptEvent("request " + std::to_string(i),
                                              [](MBSession* s) { return MBKeepAlive(s, 0); });
        const std::chrono::duration<double, std::milli> spent =
            std::chrono::steady_clock::now() - start;
        worst = std::max(worst, code);
        if (code != tool::kExitOk) continue;
        times.push_back(spent.count());
        if (options.json || options.session.quiet) continue;
        printf("%s: answer %u: %.3f ms\n", session.server().c_str(), i, spent.count());
        fflush(stdout);
    }
    printPings(options, times);
    return worst;
}

}  // namespace pool
