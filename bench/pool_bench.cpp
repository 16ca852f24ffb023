// A load for any server of the wire protocol: agents that record, query and expire POs, with rates
// and latencies of each kind of operation.
#include <strings.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>

#include "bench/pool_load.h"
#include "bench/pool_report.h"
#include "platform/support.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr double kUsualSeconds = 10;

constexpr char kFooter[] =
    "MIX names kinds of operations and how often each is chosen: record, expire, query, or single\n"
    "kinds of queries: name, folder, prefix (of a name), client. query=25 chooses each of these in "
    "a\n"
    "quarter of the 25. A query asks for POs that its agent recorded, and must find exactly "
    "these;\n"
    "while there are none, an agent records. POs lie in folders of 20, clients have 100; 10 share "
    "a\n"
    "name prefix. An expire names as many POs as a record.\n"
    "\n"
    "An agent sends an operation when the one before has ended (a closed loop): while a server\n"
    "stalls, it gets no further operations, so the latencies leave out how long those would have\n"
    "waited (coordinated omission). Rates and latencies are those of operations that succeeded.\n"
    "Queries are not retried; an agent pauses for 50 ms when its server does not answer.\n"
    "\n"
    "$KSPOOL_LOGIN and $KSPOOL_PASSWORD are the login, $KSPOOL_AGENT_CONFIG names the agent's\n"
    "configuration. A pool takes a seed once: what an earlier run left would be found, too.\n"
    "Ctrl-C ends the load and prints the table; a second one aborts the operations under way.\n"
    "Exit code: 0 all operations succeeded; 1 some failed; 2 bad options or no session.";

[[noreturn]] void failUsage(const std::string& text) {
    throw CLI::ValidationError("--mix", text);
}

/// `query` stands for all queries, hence the other weights are multiplied by their number.
pool::Weights weightsOf(const std::string& mix) {
    constexpr uint64_t kQueries = 4, kMost = 1'000'000;
    pool::Weights weights{};
    std::istringstream stream(mix);
    for (std::string part; std::getline(stream, part, ',');) {
        const size_t equals = part.find('=');
        const std::string name = part.substr(0, equals);
        uint64_t weight = 0;
        const char* end = part.data() + part.size();
        const auto parsed = std::from_chars(
            equals == std::string::npos ? end : part.data() + equals + 1, end, weight);
        if (parsed.ec != std::errc() || parsed.ptr != end || weight > kMost)
            failUsage("'" + part + "' is not KIND=NUMBER");
        bool known = false;
        for (size_t kind = 0; kind < pool::kKinds; ++kind) {
            const bool whole = name == pool::kKindRows[kind].name;
            if (!whole && !(name == "query" && pool::kKindRows[kind].isQuery)) continue;
            weights[kind] += weight * (whole ? kQueries : 1);
            known = true;
        }
        if (!known) failUsage("'" + name + "' is no kind of operation");
    }
    if (weights == pool::Weights{}) failUsage("no operation is left");
    return weights;
}

struct Options {
    pool::Settings settings;
    std::string mix = "record=70,query=25,expire=5";
    std::string json;
};

void addOptions(CLI::App& app, Options& options) {
    pool::Settings& settings = options.settings;
    app.add_option("--url", settings.urls, "Server; with several, agents are spread over them")
        ->required()
        ->type_name("URL");
    app.add_option("--agents", settings.agents, "Sessions at once, each in a thread of its own")
        ->type_name("N")
        ->check(CLI::Range(1U, 10'000U))
        ->capture_default_str();
    CLI::Option* seconds = app.add_option("--seconds", settings.seconds, "How long to measure [10]")
                               ->type_name("S")
                               ->check(CLI::PositiveNumber);
    app.add_option("--operations", settings.operations, "How many operations of all agents instead")
        ->type_name("N")
        ->check(CLI::PositiveNumber)
        ->excludes(seconds);
    app.add_option("--mix", options.mix, "Kinds of operations, see below")
        ->type_name("MIX")
        ->capture_default_str();
    app.add_option("--rounds", settings.rounds,
                   "No mix: its kinds take turns, N times; limits are those of a turn")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    app.add_option("--batch", settings.batch, "POs of a record")
        ->type_name("N")
        ->check(CLI::Range(1U, 100'000U))
        ->capture_default_str();
    app.add_option("--preload", settings.preload, "POs to record before, not measured")
        ->type_name("N");
    app.add_option("--data-selection", settings.dataselection, "Number of the data selection")
        ->type_name("N")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--seed", settings.seed, "Of names and choices [a random one]")->type_name("N");
    app.add_option("--json", options.json, "Write the figures to this file too")->type_name("FILE");
    app.footer(kFooter);
}

/// The environment of a process can be read from outside.
void forgetPassword() {
    char* password = getenv("KSPOOL_PASSWORD");
    if (password != nullptr) explicit_bzero(password, strlen(password));
    unsetenv("KSPOOL_PASSWORD");
}

int run(const Options& options) {
    // Failures are counted, so that messages about each would only bury the progress.
    qlxSetSink([](uint32_t, uint32_t, const char*, void*) {}, nullptr);
    MBSetRetryCount(0);
    std::unique_ptr<pool::Load> load;
    try {
        load = std::make_unique<pool::Load>(options.settings);
    } catch (const std::exception& error) {
        fprintf(stderr, "pool_bench: %s\n", error.what());
        return kExitUsage;
    }
    forgetPassword();
    load->preload();
    load->run();
    const pool::Result result = load->result();
    print(options.settings, result);
    if (!options.json.empty()) writeJson(options.json, options.settings, result);
    if (fflush(stdout) != 0) throw std::runtime_error("the report could not be written");
    for (const pool::Tally& tally : result.tallies)
        if (tally.failed > 0) return kExitFailed;
    return kExitOk;
}

int parseAndRun(int argc, char** argv) {
    CLI::App app("Load for a pool server: agents record, query and expire POs.", "pool_bench");
    Options options;
    options.settings.seed = std::random_device()();
    addOptions(app, options);
    try {
        app.parse(argc, argv);
        pool::Settings& settings = options.settings;
        settings.weights = weightsOf(options.mix);
        if (settings.weights[pool::kRecord] == 0 && settings.preload == 0)
            failUsage("nothing is recorded, so that --preload is needed");
        if (settings.operations == 0 && settings.seconds == 0) settings.seconds = kUsualSeconds;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        fprintf(stderr, "pool_bench: %s (see --help)\n", error.what());
        return kExitUsage;
    }
    return run(options);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parseAndRun(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "pool_bench: %s\n", error.what());
        return kExitFailed;
    }
}
