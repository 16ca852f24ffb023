#include "sandbox/log.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace sandbox {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr size_t kLoggedRequests = 100;
constexpr size_t kLoggedLength = 200;
constexpr size_t kMostActionNames = 100;
constexpr size_t kMostLogged = 20;

void cut(std::string& text) {
    text.resize(std::min(text.size(), kLoggedLength));
}

OrderedJson summary(const LogEntry& entry) {
    return {{"number", entry.number},
            {"time", entry.time},
            {"id", entry.id},
            {"service", entry.service},
            {"action", entry.action},
            {"login", entry.login},
            {"status", entry.status},
            {"event", entry.event},
            {"milliseconds", entry.milliseconds},
            {"replayed", entry.replayed},
            {"fault", entry.fault}};
}

OrderedJson withParameters(const LogEntry& entry) {
    OrderedJson json = summary(entry);
    auto& parameters = json["parameters"] = OrderedJson::object();
    // No action has such a parameter, but a client may send one by mistake.
    for (const auto& [name, value] : entry.parameters) {
        if (name != "password") parameters[name] = value;
    }
    return json;
}

}  // namespace

uint64_t RequestLog::add(LogEntry entry) {
    entry.number = ++total_;
    cut(entry.id);
    cut(entry.action);
    if (entry.parameters.size() > kMostLogged)
        entry.parameters = Pairs(entry.parameters.begin(), entry.parameters.begin() + kMostLogged);
    for (auto& [name, value] : entry.parameters) {
        cut(name);
        cut(value);
    }
    // Names come from clients, valid or not: without a limit, invented names could fill the memory.
    if (actions_.size() < kMostActionNames || actions_.contains(entry.action)) {
        ++actions_[entry.action];
    } else {
        ++actions_["..."];
    }
    last_.push_back(std::move(entry));
    if (last_.size() > kLoggedRequests) last_.pop_front();
    return total_;
}

void RequestLog::clear() {
    const uint64_t next = epoch_ + 1;
    *this = RequestLog();
    epoch_ = next;
}

OrderedJson RequestLog::report() const {
    auto last = OrderedJson::array();
    for (const LogEntry& entry : last_)
        last.push_back(withParameters(entry));
    return {{"total", total_},
            {"connections", connections_},
            {"actions", actions_},
            {"last", std::move(last)}};
}

OrderedJson RequestLog::since(uint64_t number) const {
    const auto first = std::find_if(last_.begin(), last_.end(),
                                    [=](const LogEntry& one) { return one.number > number; });
    auto requests = OrderedJson::array();
    for (auto entry = first; entry != last_.end(); ++entry)
        requests.push_back(summary(*entry));
    return {{"missed", total_ - number - requests.size()}, {"requests", std::move(requests)}};
}

OrderedJson RequestLog::messages(uint64_t number) const {
    const auto entry = std::find_if(last_.begin(), last_.end(),
                                    [=](const LogEntry& one) { return one.number == number; });
    if (entry == last_.end()) return nullptr;
    return {{"number", number},
            {"request", entry->request.text},
            {"answer", entry->answer.text},
            {"requestBytes", entry->request.bytes},
            {"answerBytes", entry->answer.bytes}};
}

}  // namespace sandbox
