#include "sandbox/http/calls.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <iterator>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "sandbox/actions.h"
#include "sandbox/members.h"
#include "sandbox/scenarios.h"

namespace sandbox {
namespace {

using Json = nlohmann::json;
using OrderedJson = nlohmann::ordered_json;

/// The requested thing does not exist: 404.
struct Missing : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A call and its arguments.
struct Call {
    State& state;
    const Json& body;
    const Pairs& query;
    const std::string& rest;  ///< the part of the path after the row's

    /// A parameter of the query, empty when it is missing.
    std::string parameter(const char* name) const {
        const auto pair = std::find_if(query.begin(), query.end(),
                                       [&](const auto& one) { return one.first == name; });
        return pair != query.end() ? pair->second : "";
    }
};

OrderedJson done() {
    return {{"done", true}};
}

OrderedJson health(const Call& call) {
    return {{"status", "ok"}, {"url", call.state.url}};
}

OrderedJson reset(const Call& call) {
    call.state.core.reset();
    call.state.faults.clear();
    call.state.log.clear();
    return done();
}

OrderedJson requests(const Call& call) {
    return call.state.log.report();
}

OrderedJson messages(const Call& call) {
    uint64_t number = 0;
    std::from_chars(call.rest.data(), call.rest.data() + call.rest.size(), number);
    OrderedJson found = call.state.log.messages(number);
    if (found.is_null())
        throw Missing("only the last 100 requests are kept, not '" + call.rest + "'");
    return found;
}

OrderedJson showFaults(const Call& call) {
    return call.state.faults.report();
}

OrderedJson addFaults(const Call& call) {
    call.state.faults.add(call.body);
    return call.state.faults.report();
}

OrderedJson clearFaults(const Call& call) {
    call.state.faults.clear();
    return call.state.faults.report();
}

OrderedJson choices(const Call& /*call*/) {
    OrderedJson json = Faults::kinds();
    json["actions"] = actionNames();
    json["scenarios"] = scenarioList();
    return json;
}

OrderedJson showClock(const Call& call) {
    const Core& core = call.state.core;
    return {{"now", core.now()}, {"fixed", core.fixedClock().has_value()}};
}

OrderedJson setClock(const Call& call) {
    const Json& body = call.body;
    if (!body.is_null() && !body.is_number_integer())
        throw std::runtime_error("the clock is set to seconds, or null for the machine's");
    call.state.core.setClock(body.is_null() ? std::nullopt : std::optional(body.get<int64_t>()));
    return showClock(call);
}

OrderedJson selectData(const Call& call) {
    if (!call.body.is_array()) throw std::runtime_error("data selections are a JSON array");
    call.state.core.select(call.body);
    return {{"selected", call.body.size()}};
}

OrderedJson placeFiles(const Call& call) {
    if (!call.body.is_array()) throw std::runtime_error("a tree is a JSON array");
    call.state.core.place(call.body);
    return {{"placed", call.body.size()}};
}

OrderedJson images(const Call& call) {
    return call.state.core.imagePage(call.parameter("after"));
}

OrderedJson selections(const Call& call) {
    return call.state.core.selectionPage(call.parameter("after"));
}

OrderedJson names(const Call& call) {
    const std::string path = call.parameter("path");
    return call.state.core.namePage(path.empty() ? "/" : path, call.parameter("after"));
}

struct Row {
    const char* method;
    std::string_view path;  ///< if it ends with a slash: the prefix of the paths
    OrderedJson (*run)(const Call& call);

    bool matches(const std::string& givenMethod, const std::string& givenPath) const {
        return method == givenMethod &&
               (path.ends_with('/') ? givenPath.starts_with(path) : givenPath == path);
    }
};

constexpr Row kRows[] = {
    {"GET", "health", health},
    {"POST", "reset", reset},
    {"GET", "requests", requests},
    {"GET", "requests/", messages},
    {"GET", "faults", showFaults},
    {"POST", "faults", addFaults},
    {"DELETE", "faults", clearFaults},
    {"GET", "choices", choices},
    {"GET", "clock", showClock},
    {"POST", "clock", setClock},
    {"POST", "tree", placeFiles},
    {"GET", "names", names},
    {"GET", "images", images},
    {"GET", "dataselections", selections},
    {"POST", "dataselections", selectData},
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
                    const std::string& query, const std::string& body) noexcept {
    const auto* row = std::find_if(std::begin(kRows), std::end(kRows),
                                   [&](const Row& one) { return one.matches(method, path); });
    try {
        if (row == std::end(kRows)) return failure(404, "no such function");
        // Outside the lock: parsing a large body would block all other requests.
        const Json given = parseJson(body);
        const Pairs parameters = decodePairs(query);
        const std::string rest = path.substr(row->path.size());
        const std::lock_guard<std::mutex> lock(state.mutex);
        return json(200, row->run({state, given, parameters, rest}));
    } catch (const Missing& missing) {
        return failure(404, missing.what());
    } catch (const std::exception& error) {
        return failure(400, error.what());
    }
}

}  // namespace sandbox
