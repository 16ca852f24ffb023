#include "bench/pool_agent.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "common/owned.h"
#include "platform/status.h"
#include "platform/ws.h"

namespace pool {
namespace {

/// POs that share a client, a folder, a name prefix.
constexpr uint64_t kPOsAClient = 100;
constexpr uint64_t kPOsAFolder = 20;
constexpr uint64_t kPOsAPrefix = 10;

constexpr uint64_t kPOsAPreload = 1000;  ///< of a request

/// An agent whose server does not answer would otherwise do nothing but fail, thousands of times a
/// second.
constexpr std::chrono::milliseconds kPause{50};

/// A bijection: different numbers stay different.
constexpr uint32_t scrambled(uint32_t number) {
    number += 0x9e3779b9;
    number ^= number >> 16;
    number *= 0x7feb352d;
    number ^= number >> 15;
    number *= 0x846ca68b;
    return number ^ number >> 16;
}

template <typename... Values>
std::string formatted(const char* format, Values... values) {
    char text[512];
    snprintf(text, sizeof text, format, values...);
    return text;
}

bool isTransport(uint32_t status) {
    return status >= CR_STATUS_TRANSPORT_BASE && status < CR_STATUS_TRANSPORT_BASE + 100;
}

}  // namespace

Agent::Agent(const Settings& settings, unsigned number)
    : settings_(settings),
      tail_(formatted("-%u-%08x", number, settings.seed)),
      random_((uint64_t{settings.seed} << 32) + number) {
    const std::string& url = settings.urls[number % settings.urls.size()];
    session_.reset(MBInit(url.c_str(), 0, getenv("KSPOOL_LOGIN"), getenv("KSPOOL_PASSWORD")));
    if (session_ == nullptr) {
        throw std::runtime_error(std::string("no session could be made: ") +
                                 CRStatusToStringA(*__cr_errno_location()) +
                                 " ($KSPOOL_AGENT_CONFIG names the agent's configuration)");
    }
    uint32_t time = 0;
    const uint32_t status = MBGetTime(session_.get(), &time);
    if (status == CR_STATUS_OK) return;
    throw std::runtime_error(url + ": " + CRStatusToStringA(status) + reasonOf({status, 0, ""}));
}

void Agent::preload(uint64_t pos, Counters& counters) {
    const uint64_t most = std::max<uint64_t>(kPOsAPreload / settings_.batch, 1);
    uint64_t left = (pos + settings_.batch - 1) / settings_.batch;
    while (left > 0 && !counters.stopped) {
        const uint64_t units = std::min(left, most);
        const Outcome outcome = record(units);
        if (outcome.status != CR_STATUS_OK) {
            throw std::runtime_error(std::string("preload: ") + CRStatusToStringA(outcome.status) +
                                     reasonOf(outcome));
        }
        counters.pos += outcome.pos;
        counters.done += outcome.pos;
        left -= units;
    }
}

void Agent::run(const Stage& stage, Counters& counters) {
    while (!counters.stopped && Clock::now() < stage.end) {
        if (stage.operations > 0 && counters.taken++ >= stage.operations) return;
        Kind kind = choose(stage.weights);
        if (live_.empty() && kind != kRecord) {
            if (stage.weights[kRecord] == 0) return;
            kind = kRecord;
        }
        const Outcome outcome = perform(kind);
        note(kind, outcome, counters);
        if (isTransport(outcome.status)) std::this_thread::sleep_for(kPause);
    }
}

MBStatistics Agent::statistics() const {
    MBStatistics statistics{};
    statistics.size = sizeof statistics;
    MBGetStatistics(session_.get(), &statistics);
    return statistics;
}

template <typename Call>
uint32_t Agent::timed(Call call) {
    const auto start = Clock::now();
    const uint32_t status = call();
    const auto took = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
    took_ = static_cast<uint64_t>(took.count());
    return status;
}

Kind Agent::choose(const Weights& weights) {
    uint64_t sum = 0;
    for (const uint64_t weight : weights)
        sum += weight;
    uint64_t at = below(sum);
    size_t kind = 0;
    while (at >= weights[kind])
        at -= weights[kind++];
    return static_cast<Kind>(kind);
}

Agent::Outcome Agent::perform(Kind kind) {
    if (kKindRows[kind].isQuery) return query(kind);
    return kind == kRecord ? record(1) : expire();
}

Agent::Outcome Agent::record(uint64_t units) {
    const uint64_t first = states_.size();
    std::string text;
    for (uint64_t unit = first; unit < first + units; ++unit)
        appendPOs(text, unit);
    const uint32_t status =
        timed([&] { return MBPOAddList(session_.get(), settings_.dataselection, text.c_str()); });
    states_.resize(first + units, status == CR_STATUS_OK ? kLive : kUnsure);
    for (uint64_t unit = first; status == CR_STATUS_OK && unit < first + units; ++unit)
        live_.push_back(unit);
    return {status, units * settings_.batch, ""};
}

Agent::Outcome Agent::expire() {
    std::swap(live_[below(live_.size())], live_.back());
    const uint64_t unit = live_.back();
    live_.pop_back();
    std::string text;
    appendPOs(text, unit);
    const uint32_t status =
        timed([&] { return MBPOExpire(session_.get(), settings_.dataselection, text.c_str()); });
    states_[unit] = status == CR_STATUS_OK ? kGone : kUnsure;
    return {status, settings_.batch, ""};
}

Agent::Outcome Agent::query(Kind kind) {
    const uint64_t number = live_[below(live_.size())] * settings_.batch + below(settings_.batch);
    const auto around = [number](uint64_t size) {
        return Range{number / size * size, (number / size + 1) * size};
    };
    MBPOFilter filter{};
    filter.size = sizeof filter;
    MBPOFilterInit(&filter);
    Range range{number, number + 1};
    std::string text = name(number);
    const char** criterion = &filter.criterion10;
    if (kind == kByPrefix) {
        range = around(kPOsAPrefix);
        text.back() = '*';
    } else if (kind == kByFolder) {
        range = around(kPOsAFolder);
        text = folder(number);
        criterion = &filter.criterion9;
    } else if (kind == kByClient) {
        range = around(kPOsAClient);
        text = group(number, kPOsAClient);
        criterion = &filter.criterion6;
    }
    *criterion = text.c_str();
    char* answer = nullptr;
    uint32_t count = 0;
    uint32_t status = timed([&] {
        return MBPOFind(session_.get(), settings_.dataselection, &filter, &answer, nullptr, &count);
    });
    const kspool::OwnedText owned(answer);
    if (status == CR_STATUS_NOT_FOUND) status = CR_STATUS_OK;
    const Range right = expected(range);
    if (status != CR_STATUS_OK || (count >= right.first && count <= right.end))
        return {status, count, ""};
    std::string problem =
        "found " + std::to_string(count) + " POs, not " + std::to_string(right.first);
    if (right.end != right.first) problem += " to " + std::to_string(right.end);
    return {kWrongAnswer, count, problem + ", of " + text};
}

void Agent::note(Kind kind, const Outcome& outcome, Counters& counters) {
    Tally& tally = tallies_[kind];
    if (outcome.status == CR_STATUS_OK) {
        tally.latencies.add(took_);
        tally.pos += outcome.pos;
        counters.pos += outcome.pos;
    } else {
        ++tally.failed;
        ++counters.failed;
        Failure& failure = tally.failures[outcome.status];
        if (failure.count++ == 0) failure.example = reasonOf(outcome);
    }
    ++counters.done;
}

/// What is known beside the status, in brackets after a space.
std::string Agent::reasonOf(const Outcome& outcome) const {
    if (!outcome.problem.empty()) return " (" + outcome.problem + ")";
    MBEvent last{};
    last.size = sizeof last;
    if (MBLastEvent(session_.get(), &last) != CR_STATUS_OK) return "";
    if (last.eventCode != 0) {
        return " (event " + std::to_string(last.eventCode) + ": " +
               (last.description != nullptr ? last.description : "") + ")";
    }
    return last.httpStatus != 0 && isTransport(outcome.status)
               ? " (HTTP status " + std::to_string(last.httpStatus) + ")"
               : "";
}

/// How many POs with these numbers a query finds, at least and at most.
Agent::Range Agent::expected(Range numbers) const {
    const uint64_t end = std::min(numbers.end, states_.size() * settings_.batch);
    Range found{0, 0};
    for (uint64_t number = numbers.first; number < end; ++number) {
        const State state = states_[number / settings_.batch];
        found.first += state == kLive ? 1 : 0;
        found.end += state == kGone ? 0 : 1;
    }
    return found;
}

std::string Agent::group(uint64_t number, uint64_t size) const {
    return formatted("%08x", scrambled(static_cast<uint32_t>(number / size))) + tail_;
}

std::string Agent::folder(uint64_t number) const {
    return "/data/" + group(number, kPOsAFolder);
}

/// The last character alone tells the POs of a prefix apart.
std::string Agent::name(uint64_t number) const {
    return group(number, kPOsAPrefix) + "." + std::to_string(number % kPOsAPrefix);
}

void Agent::appendPOs(std::string& text, uint64_t unit) const {
    for (uint64_t i = 0; i < settings_.batch; ++i) {
        const uint64_t number = unit * settings_.batch + i;
        const uint32_t noise = scrambled(static_cast<uint32_t>(number));
        text += formatted(
            "%u|1||0|0|%s|daily|monday|%s|%s|%08x%08x%08x%08x%08x%08x%08x%08x|f||||%u|%u|0|0|0|1|1|"
            "0|420|0|\n",
            settings_.dataselection, group(number, kPOsAClient).c_str(), folder(number).c_str(),
            name(number).c_str(), noise, scrambled(noise), ~noise, scrambled(~noise), noise + 1,
            scrambled(noise + 1), noise + 2, scrambled(noise + 2), noise, noise >> 1);
    }
}

}  // namespace pool
