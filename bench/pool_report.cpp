#include "bench/pool_report.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <stdexcept>

#include "platform/status.h"

namespace pool {
namespace {

constexpr int kTitleWidth = 21;

void printHead(const char* first, const char* unit) {
    printf("\n%-*s %11s %8s %11s %11s %10s %10s %10s\n", kTitleWidth, first, "operations", "failed",
           "per second", "POs/s", "median", "99 %", "worst");
    printf("%-*s %11s %8s %11s %11s %10s %10s %10s\n", kTitleWidth, unit, "", "", "", "", "ms",
           "ms", "ms");
}

void printRow(const std::string& title, const Tally& tally, double seconds) {
    printf("%-*s %11s %8s %11s %11s", kTitleWidth, title.c_str(),
           counted(static_cast<double>(tally.operations())).c_str(),
           counted(static_cast<double>(tally.failed)).c_str(),
           counted(static_cast<double>(tally.latencies.count()) / seconds).c_str(),
           counted(static_cast<double>(tally.pos) / seconds).c_str());
    if (tally.latencies.count() > 0) {
        printf(" %10.3f %10.3f %10.3f", tally.latencies.quantile(0.5) * 1e3,
               tally.latencies.quantile(0.99) * 1e3, tally.latencies.worst() * 1e3);
    }
    printf("\n");
}

Tally sumOf(const Tallies& tallies) {
    Tally sum;
    for (const Tally& tally : tallies)
        sum.add(tally);
    return sum;
}

std::string textOf(uint32_t status) {
    if (status == kWrongAnswer) return "not what was recorded";
    return "status " + std::to_string(status) + ": " + CRStatusToStringA(status);
}

void printFailures(const Tallies& tallies) {
    printf("\nfailures\n");
    for (size_t kind = 0; kind < kKinds; ++kind) {
        for (const auto& [status, failure] : tallies[kind].failures) {
            printf("%11s  %s: %s%s\n", counted(static_cast<double>(failure.count)).c_str(),
                   kKindRows[kind].title, textOf(status).c_str(), failure.example.c_str());
        }
    }
}

double megabytes(uint64_t bytes) {
    return static_cast<double>(bytes) * 1e-6;
}

nlohmann::ordered_json jsonOf(const Tally& tally, double seconds) {
    nlohmann::ordered_json row = {
        {"operations", tally.operations()},
        {"failed", tally.failed},
        {"pos", tally.pos},
        {"seconds", seconds},
        {"operations a second", static_cast<double>(tally.latencies.count()) / seconds},
        {"pos a second", static_cast<double>(tally.pos) / seconds},
        {"mean", tally.latencies.mean()},
        {"median", tally.latencies.quantile(0.5)},
        {"99 %", tally.latencies.quantile(0.99)},
        {"worst", tally.latencies.worst()}};
    for (const auto& [status, failure] : tally.failures) {
        row["failures"].push_back({{"status", status},
                                   {"text", textOf(status)},
                                   {"count", failure.count},
                                   {"example", failure.example}});
    }
    return row;
}

}  // namespace

void print(const Settings& settings, const Result& result) {
    printf("%u agent%s, lists of %s, seed %u", settings.agents, settings.agents == 1 ? "" : "s",
           counted(static_cast<double>(settings.batch)).c_str(), settings.seed);
    if (settings.rounds > 0) {
        printf(", the kinds in turn in %u rounds", settings.rounds);
    } else {
        printf(", a mix");
    }
    printf(", %.1f s%s\n", result.seconds, result.interrupted ? " until it was interrupted" : "");
    if (result.preloaded > 0) {
        const auto pos = static_cast<double>(result.preloaded);
        printf("preload: %s POs in %.1f s, %s POs a second\n", counted(pos).c_str(),
               result.preloadSeconds, counted(pos / result.preloadSeconds).c_str());
    }
    printHead("operation", "");
    for (size_t kind = 0; kind < kKinds; ++kind) {
        const Tally& tally = result.tallies[kind];
        if (tally.operations() > 0)
            printRow(kKindRows[kind].title, tally, result.kindSeconds[kind]);
    }
    const Tally sum = sumOf(result.tallies);
    printRow("all", sum, result.seconds);
    if (settings.urls.size() > 1) {
        printHead("server", "");
        for (size_t i = 0; i < settings.urls.size(); ++i)
            printRow(settings.urls[i], sumOf(result.byUrl[i]), result.seconds);
    }
    const MBStatistics& statistics = result.statistics;
    printf("\n%s connections, %s attempts for %s requests, %.1f MB sent, %.1f MB received\n",
           counted(static_cast<double>(statistics.connections)).c_str(),
           counted(static_cast<double>(statistics.attempts)).c_str(),
           counted(static_cast<double>(statistics.requests)).c_str(),
           megabytes(statistics.bytesSent), megabytes(statistics.bytesReceived));
    if (sum.failed > 0) printFailures(result.tallies);
}

void writeJson(const std::string& file, const Settings& settings, const Result& result) {
    const benchmark::CPUInfo& cpu = benchmark::CPUInfo::Get();
    nlohmann::ordered_json all = {
        {"context",
         {{"num_cpus", cpu.num_cpus}, {"mhz_per_cpu", std::lround(cpu.cycles_per_second / 1e6)}}},
        {"urls", settings.urls},
        {"agents", settings.agents},
        {"batch", settings.batch},
        {"seed", settings.seed},
        {"rounds", settings.rounds},
        {"preload", {{"pos", result.preloaded}, {"seconds", result.preloadSeconds}}},
        {"interrupted", result.interrupted},
        {"connections", result.statistics.connections},
        {"attempts", result.statistics.attempts},
        {"requests", result.statistics.requests}};
    for (size_t kind = 0; kind < kKinds; ++kind) {
        const Tally& tally = result.tallies[kind];
        if (tally.operations() == 0) continue;
        all["kinds"][kKindRows[kind].name] = jsonOf(tally, result.kindSeconds[kind]);
        all["kinds"][kKindRows[kind].name]["rates"] = result.rates[kind];
    }
    all["all"] = jsonOf(sumOf(result.tallies), result.seconds);
    std::ofstream stream(file);
    stream << all.dump(1) << "\n";
    stream.close();
    if (!stream) throw std::runtime_error(file + ": could not be written");
}

}  // namespace pool
