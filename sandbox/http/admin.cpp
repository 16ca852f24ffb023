#include "sandbox/http/admin.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

namespace sandbox {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

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

}  // namespace

Answer administrate(State& state, const std::string& method, const std::string& path,
                    const std::string& body) noexcept {
    const auto function =
        std::find_if(std::begin(kFunctions), std::end(kFunctions),
                     [&](const Function& one) { return method == one.method && path == one.path; });
    try {
        if (function == std::end(kFunctions)) return failure(404, "no such function");
        // Outside the lock: a large body would hold up all other requests.
        const Json given = body.empty() ? Json() : Json::parse(body);
        const std::lock_guard<std::mutex> lock(state.mutex);
        return json(200, function->run(state, given));
    } catch (const std::exception& error) {
        return failure(400, error.what());
    }
}

}  // namespace sandbox
