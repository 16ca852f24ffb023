#include "sandbox/log.h"

#include <nlohmann/json.hpp>
#include <utility>

namespace sandbox {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr size_t kLoggedRequests = 100;
constexpr size_t kLoggedLength = 200;
constexpr size_t kMostActionNames = 100;

std::string cut(const std::string& text) {
    return text.substr(0, kLoggedLength);
}

OrderedJson entryJson(const LogEntry& entry) {
    auto parameters = OrderedJson::object();
    // No action has such a parameter; a client that sends one by mistake is not exposed.
    for (const auto& [name, value] : entry.parameters) {
        if (name != "password") parameters[name] = value;
    }
    return {{"id", entry.id},
            {"service", entry.service},
            {"action", entry.action},
            {"login", entry.login},
            {"parameters", parameters},
            {"status", entry.status},
            {"replayed", entry.replayed},
            {"fault", entry.fault}};
}

}  // namespace

void RequestLog::add(LogEntry entry) {
    ++total_;
    for (std::string* text : {&entry.id, &entry.action}) {
        if (text->size() > kLoggedLength) *text = cut(*text);
    }
    for (auto& [name, value] : entry.parameters) {
        if (name.size() > kLoggedLength) name = cut(name);
        if (value.size() > kLoggedLength) value = cut(value);
    }
    // Names come from clients, valid or not: without a limit, invented ones would fill the memory.
    if (actions_.size() < kMostActionNames || actions_.contains(entry.action)) {
        ++actions_[entry.action];
    } else {
        ++actions_["..."];
    }
    last_.push_back(std::move(entry));
    if (last_.size() > kLoggedRequests) last_.pop_front();
}

void RequestLog::clear() {
    *this = RequestLog();
}

nlohmann::ordered_json RequestLog::report() const {
    auto last = OrderedJson::array();
    for (const LogEntry& entry : last_)
        last.push_back(entryJson(entry));
    return {{"total", total_},
            {"connections", connections_},
            {"actions", actions_},
            {"last", std::move(last)}};
}

}  // namespace sandbox
