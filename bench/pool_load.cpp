#include "bench/pool_load.h"

#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>

namespace pool {
namespace {

constexpr std::chrono::milliseconds kLook{100};  ///< between two looks at signals and progress

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

sigset_t endingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

/// A line on stderr that says what is done at the moment: redrawn each second on a terminal, else
/// written every ten seconds.
class Progress {
  public:
    explicit Progress(const std::string& title) : title_(title) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() {
        if (drawn_ && terminal_) fputs("\r\033[K", stderr);
    }

    void look(const Counters& counters) {
        const double seconds = secondsSince(drawnAt_);
        if (seconds < (terminal_ ? 1 : 10)) return;
        const uint64_t done = counters.done, pos = counters.pos, failed = counters.failed;
        const auto rate = [=](uint64_t now, uint64_t before) {
            return counted(static_cast<double>(now - before) / seconds);
        };
        // Within 80 columns, since a line that wraps cannot be redrawn.
        fprintf(stderr, "%s%s: %.0f s, %s done, %s/s", terminal_ ? "\r\033[K" : "", title_.c_str(),
                secondsSince(start_), counted(static_cast<double>(done)).c_str(),
                rate(done, done_).c_str());
        if (pos != done) fprintf(stderr, ", %s POs/s", rate(pos, pos_).c_str());
        if (failed > 0)
            fprintf(stderr, ", %s failed", counted(static_cast<double>(failed)).c_str());
        if (!terminal_) fputc('\n', stderr);
        done_ = done;
        pos_ = pos;
        drawn_ = true;
        drawnAt_ = Clock::now();
    }

  private:
    std::string title_;
    bool terminal_ = isatty(STDERR_FILENO) != 0;
    bool drawn_ = false;
    Clock::time_point start_ = Clock::now(), drawnAt_ = start_;
    uint64_t done_ = 0, pos_ = 0;
};

}  // namespace

std::string counted(double number) {
    char digits[64];
    snprintf(digits, sizeof digits, "%.0f", number);
    std::string text = digits;
    for (size_t at = text.size(); at > 3;)
        text.insert(at -= 3, ",");
    return text;
}

Load::Load(const Settings& settings) : settings_(settings) {
    for (unsigned number = 0; number < settings.agents; ++number)
        agents_.push_back(std::make_unique<Agent>(settings, number));
    const sigset_t signals = endingSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void Load::preload() {
    if (settings_.preload == 0) return;
    const uint64_t agents = agents_.size();
    const std::string title =
        "preload of " + counted(static_cast<double>(settings_.preload)) + " POs";
    result_.preloadSeconds = together(title, [&](Agent& agent) {
        agent.preload((settings_.preload + agents - 1) / agents, counters_);
    });
    result_.preloaded = counters_.pos;
}

void Load::run() {
    if (settings_.rounds == 0) {
        const std::string limit = settings_.seconds > 0
                                      ? counted(settings_.seconds) + " s"
                                      : counted(static_cast<double>(settings_.operations));
        const double seconds = stage("mix of " + limit, settings_.weights);
        result_.kindSeconds.fill(seconds);
        for (size_t kind = 0; kind < kKinds; ++kind) {
            const uint64_t done = succeeded(static_cast<Kind>(kind));
            if (done > 0) result_.rates[kind] = {static_cast<double>(done) / seconds};
        }
    }
    for (unsigned round = 1; round <= settings_.rounds; ++round) {
        for (size_t kind = 0; kind < kKinds && !counters_.stopped; ++kind) {
            if (settings_.weights[kind] == 0) continue;
            Weights alone{};
            alone[kind] = 1;
            const uint64_t before = succeeded(static_cast<Kind>(kind));
            const double seconds =
                stage("round " + std::to_string(round) + " of " + std::to_string(settings_.rounds) +
                          ", " + kKindRows[kind].title,
                      alone);
            const uint64_t done = succeeded(static_cast<Kind>(kind)) - before;
            result_.kindSeconds[kind] += seconds;
            if (done > 0) result_.rates[kind].push_back(static_cast<double>(done) / seconds);
        }
    }
}

Result Load::result() const {
    Result all = result_;
    all.byUrl.resize(settings_.urls.size());
    for (size_t number = 0; number < agents_.size(); ++number) {
        const Agent& agent = *agents_[number];
        for (size_t kind = 0; kind < kKinds; ++kind) {
            all.tallies[kind].add(agent.tallies()[kind]);
            all.byUrl[number % settings_.urls.size()][kind].add(agent.tallies()[kind]);
        }
        const MBStatistics own = agent.statistics();
        all.statistics.requests += own.requests;
        all.statistics.attempts += own.attempts;
        all.statistics.connections += own.connections;
        all.statistics.bytesSent += own.bytesSent;
        all.statistics.bytesReceived += own.bytesReceived;
    }
    all.interrupted = signals_ > 0;
    return all;
}

double Load::stage(const std::string& title, const Weights& weights) {
    Stage stage;
    stage.weights = weights;
    stage.operations = settings_.operations;
    if (settings_.seconds > 0) {
        stage.end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(settings_.seconds));
    }
    const double seconds = together(title, [&](Agent& agent) { agent.run(stage, counters_); });
    result_.seconds += seconds;
    return seconds;
}

/// Lets all agents work at once. Returns the seconds until the last of them was ready, and throws
/// what the first of them threw.
double Load::together(const std::string& title, const std::function<void(Agent&)>& work) {
    for (std::atomic<uint64_t>* counter :
         {&counters_.taken, &counters_.done, &counters_.failed, &counters_.pos})
        *counter = 0;
    std::mutex mutex;
    std::condition_variable over;
    size_t running = agents_.size();
    std::exception_ptr problem;
    Progress progress(title);
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (const auto& agent : agents_) {
        threads.emplace_back([&, one = agent.get()] {
            std::exception_ptr thrown;
            try {
                work(*one);
            } catch (...) {
                thrown = std::current_exception();
                counters_.stopped = true;
            }
            const std::lock_guard lock(mutex);
            if (problem == nullptr) problem = thrown;
            if (--running == 0) over.notify_one();
        });
    }
    std::unique_lock lock(mutex);
    while (!over.wait_for(lock, kLook, [&] { return running == 0; })) {
        takeSignals();
        progress.look(counters_);
    }
    const double seconds = secondsSince(start);
    lock.unlock();
    for (std::thread& thread : threads)
        thread.join();
    if (problem != nullptr) std::rethrow_exception(problem);
    return seconds;
}

void Load::takeSignals() {
    const sigset_t signals = endingSignals();
    const timespec now{};
    while (sigtimedwait(&signals, nullptr, &now) > 0)
        ++signals_;
    if (signals_ > 0) counters_.stopped = true;
    // An abort has no effect between two operations, hence at each look.
    for (size_t i = 0; signals_ > 1 && i < agents_.size(); ++i)
        agents_[i]->abort();
}

uint64_t Load::succeeded(Kind kind) const {
    uint64_t count = 0;
    for (const auto& agent : agents_)
        count += agent->tallies()[kind].latencies.count();
    return count;
}

}  // namespace pool
