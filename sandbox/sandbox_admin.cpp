// What tests and people ask of the server itself, and its log.
#include <algorithm>

#include "sandbox/sandbox_state.h"

namespace sandbox {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

constexpr size_t kLoggedRequests = 100;
constexpr size_t kLoggedLength = 200;
constexpr size_t kMostActionNames = 100;

OrderedJson done() {
    return {{"done", true}};
}

OrderedJson health(State& state, const Json& /*body*/) {
    return {{"status", "ok"}, {"url", state.url}};
}

OrderedJson reset(State& state, const Json& /*body*/) {
    state.core.reset();
    state.faults.clear();
    state.log.clear();
    return done();
}

OrderedJson requests(State& state, const Json& /*body*/) {
    return state.log.report();
}

OrderedJson showFaults(State& state, const Json& /*body*/) {
    return state.faults.report();
}

OrderedJson addFaults(State& state, const Json& body) {
    state.faults.add(body);
    return state.faults.report();
}

OrderedJson clearFaults(State& state, const Json& /*body*/) {
    state.faults.clear();
    return state.faults.report();
}

OrderedJson showClock(State& state, const Json& /*body*/) {
    return {{"now", state.core.now()}, {"fixed", state.core.fixedClock().has_value()}};
}

OrderedJson setClock(State& state, const Json& body) {
    if (!body.is_null() && !body.is_number_integer())
        throw std::runtime_error("the clock is set to seconds, or null for the machine's");
    state.core.setClock(body.is_null() ? std::nullopt : std::optional(body.get<int64_t>()));
    return showClock(state, body);
}

OrderedJson selectData(State& state, const Json& body) {
    if (!body.is_array()) throw std::runtime_error("data selections are a JSON array");
    state.core.select(body);
    return {{"selected", body.size()}};
}

OrderedJson placeFiles(State& state, const Json& body) {
    if (!body.is_array()) throw std::runtime_error("a tree is a JSON array");
    state.core.place(body);
    return {{"placed", body.size()}};
}

struct Function {
    const char* method;
    const char* path;
    OrderedJson (*run)(State& state, const Json& body);
};

constexpr Function kFunctions[] = {
    {"GET", "health", health},     {"POST", "reset", reset},
    {"GET", "requests", requests}, {"GET", "faults", showFaults},
    {"POST", "faults", addFaults}, {"DELETE", "faults", clearFaults},
    {"GET", "clock", showClock},   {"POST", "clock", setClock},
    {"POST", "tree", placeFiles},  {"POST", "dataselections", selectData},
};

Answer json(unsigned status, const OrderedJson& content) {
    Answer answer;
    answer.status = status;
    answer.type = "application/json";
    answer.body = content.dump(-1, ' ', false, OrderedJson::error_handler_t::replace) + "\n";
    return answer;
}

Answer failure(unsigned status, const std::string& text) {
    return json(status, {{"error", text}});
}

std::string cut(const std::string& text) {
    return text.substr(0, kLoggedLength);
}

OrderedJson entryJson(const LogEntry& entry) {
    auto parameters = OrderedJson::object();
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

Answer administrate(State& state, const std::string& method, const std::string& path,
                    const std::string& body) noexcept {
    const auto function =
        std::find_if(std::begin(kFunctions), std::end(kFunctions),
                     [&](const Function& one) { return method == one.method && path == one.path; });
    try {
        if (function == std::end(kFunctions)) return failure(404, "no such function");
        const Json given = body.empty() ? Json() : Json::parse(body);
        const std::lock_guard<std::mutex> lock(state.mutex);
        return json(200, function->run(state, given));
    } catch (const Event& event) {
        return failure(400, event.text);
    } catch (const std::exception& error) {
        return failure(400, error.what());
    }
}

void RequestLog::add(LogEntry entry) {
    ++total_;
    for (std::string* text : {&entry.id, &entry.action}) {
        if (text->size() > kLoggedLength) *text = cut(*text);
    }
    for (auto& [name, value] : entry.parameters) {
        if (name.size() > kLoggedLength) name = cut(name);
        if (value.size() > kLoggedLength) value = cut(value);
    }
    // Whoever makes names up must not fill the memory.
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
