#include "sandbox/faults.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "sandbox/actions.h"
#include "sandbox/scenarios.h"
#include "sandbox/store/event.h"

namespace sandbox {
namespace {

using Json = nlohmann::json;

void unchanged(const Fault& /*fault*/, const Json& /*reporter*/, Answer& /*answer*/) {}

void withNul(const Fault& /*fault*/, const Json& /*reporter*/, Answer& answer) {
    answer.body.insert(answer.body.size() / 2, 1, '\0');
}

void withType(const Fault& fault, const Json& /*reporter*/, Answer& answer) {
    answer.type = fault.text("type", "text/html");
}

void statusOnly(const Fault& fault, const Json& /*reporter*/, Answer& answer) {
    answer.status = static_cast<unsigned>(fault.number("code", 503));
    answer.type = fault.text("type", "text/plain");
    answer.body = fault.text("body", "");
    answer.headers.clear();
    answer.event = 0;
    const auto retryAfter = fault.members.find("retryAfter");
    if (retryAfter != fault.members.end()) {
        answer.headers.emplace_back("Retry-After", retryAfter->is_string()
                                                       ? retryAfter->get<std::string>()
                                                       : retryAfter->dump());
    }
}

void redirect(const Fault& fault, const Json& /*reporter*/, Answer& answer) {
    answer.status = static_cast<unsigned>(fault.number("code", 302));
    answer.headers.emplace_back("Location", fault.text("location", "/"));
}

/// True for a valid event code. A bad-event fault must not send one: it would promise that the
/// request was not done, which is checked only for FaultKind::refuses.
bool isEventCode(const Json& value) {
    return value.is_number_unsigned() && value > 0 && value <= UINT32_MAX;
}

/// An event's answer. Members of the fault replace the defaults; null leaves a member out.
void eventWithCode(const Fault& fault, const Json& reporter, const Json& code, Answer& answer) {
    nlohmann::ordered_json members = {{"title", "Ordered"},
                                      {"detail", "ordered"},
                                      {"eventCode", fault.members.value("code", code)},
                                      {"severity", "ERROR"}};
    members.update(reporter);
    constexpr std::pair<const char*, const char*> kMembers[] = {
        {"description", "detail"},
        {"severity", "severity"},
        {"serverAddress", "serverAddress"},
        {"sourceApplication", "sourceApplication"},
    };
    for (const auto& [given, member] : kMembers) {
        if (fault.members.contains(given)) members[member] = fault.members[given];
    }
    answer = problem(static_cast<unsigned>(fault.number("status", 500)), members);
    const Json& sent = members["eventCode"];
    if (isEventCode(sent)) answer.event = sent;
}

void event(const Fault& fault, const Json& reporter, Answer& answer) {
    eventWithCode(fault, reporter, POOL_EVENT_SERVER_FAILED, answer);
}

/// The code is sent as ordered, whatever its JSON type and value; by default there is none.
void badEvent(const Fault& fault, const Json& reporter, Answer& answer) {
    eventWithCode(fault, reporter, nullptr, answer);
}

constexpr FaultKind kKinds[] = {
    // name, carried out, refuses, delivery, change, members
    {"delay", true, false, Delivery::kPlain, unchanged, "ms "},
    {"clock", true, false, Delivery::kPlain, unchanged, "seconds "},
    {"reset", false, false, Delivery::kReset, unchanged, ""},
    {"lose", true, false, Delivery::kClose, unchanged, ""},
    {"cut", true, false, Delivery::kCut, unchanged, "bytes "},
    {"stall", true, false, Delivery::kStall, unchanged, "ms "},
    {"oversize", false, false, Delivery::kOversize, unchanged, "bytes "},
    {"garbage", false, false, Delivery::kGarbage, unchanged, "text "},
    {"nul", true, false, Delivery::kPlain, withNul, ""},
    {"unbounded", true, false, Delivery::kUnbounded, unchanged, ""},
    {"chunked", true, false, Delivery::kChunked, unchanged, ""},
    {"type", true, false, Delivery::kPlain, withType, "type "},
    {"status", false, false, Delivery::kPlain, statusOnly, "code retryAfter body type "},
    {"lie", true, false, Delivery::kPlain, statusOnly, "code retryAfter body type "},
    {"redirect", false, false, Delivery::kPlain, redirect, "code location "},
    {"event", false, true, Delivery::kPlain, event,
     "code status description severity serverAddress sourceApplication "},
    {"bad-event", false, false, Delivery::kPlain, badEvent,
     "code status description severity serverAddress sourceApplication "},
};

constexpr char kCommonMembers[] = "kind times chance seed action ";
constexpr char kNumbers[] = "ms bytes times seed seconds code status chance ";

[[noreturn]] void refuse(const std::string& text) {
    throw std::runtime_error(text);
}

bool listed(const std::string& members, const std::string& name) {
    const size_t at = members.find(name + " ");
    return at != std::string::npos && (at == 0 || members[at - 1] == ' ');
}

bool isHttpStatus(const Json& value) {
    return value.is_number_unsigned() && value >= 200 && value <= 999;
}

/// Which values a member accepts; NULL if it accepts this one. Checked when a fault is ordered, so
/// that Fault::number() and Fault::text() cannot throw when the fault strikes: then the client
/// would see a closed connection, and nobody would see the mistake in the order.
const char* wrong(const FaultKind& kind, const std::string& name, const Json& value) {
    const bool tells = std::string_view(kind.members).starts_with("code status");
    const auto unless = [](bool right, const char* wanted) { return right ? nullptr : wanted; };
    if (listed("ms bytes times seed ", name))
        return unless(value.is_number_unsigned(), "a whole number from 0 on");
    if (name == "seconds") return unless(value.is_number_integer(), "a whole number");
    if (name == "chance")
        return unless(value.is_number() && value >= 0 && value <= 1, "a number from 0 to 1");
    if (name == "retryAfter")
        return unless(value.is_string() || value.is_number_unsigned(), "a text or a number");
    if (name == "status" || (name == "code" && !tells))
        return unless(isHttpStatus(value), "an HTTP status from 200 to 999");
    if (name == "code" && kind.change == event)
        return unless(isEventCode(value), "an event's code");
    if (name == "code") return unless(!isEventCode(value), "invalid as the code of an event");
    if (name == "action")
        return unless(value.is_string() && isActionName(value), "the name of an action");
    return unless(value.is_string() || (tells && value.is_null()), "a text");
}

const FaultKind& kindOf(const Json& json) {
    const auto given = json.find("kind");
    if (given == json.end()) refuse("a fault needs a kind: " + json.dump());
    for (const FaultKind& kind : kKinds) {
        if (*given == kind.name) return kind;
    }
    refuse("unknown kind of fault: " + given->dump());
}

void checkMember(const FaultKind& kind, const std::string& member, const Json& value) {
    const std::string name = kind.name;
    if (!listed(kCommonMembers, member) && !listed(kind.members, member))
        refuse("fault '" + name + "' has no member '" + member + "'");
    const char* wanted = member == "kind" ? nullptr : wrong(kind, member, value);
    if (wanted != nullptr)
        refuse("'" + member + "' of fault '" + name + "' is not " + wanted + ": " + value.dump());
}

Fault parse(const Json& json) {
    Fault fault;
    fault.kind = &kindOf(json);
    for (const auto& [member, value] : json.items())
        checkMember(*fault.kind, member, value);
    fault.members = json;
    fault.timesLeft = json.value("times", uint64_t{1});
    fault.chance = json.value("chance", 1.0);
    fault.random.seed(json.value("seed", uint64_t{1}));
    return fault;
}

/// The faults that an element of an order stands for.
Json expanded(const Json& element) {
    if (!element.is_object()) refuse("a fault is a JSON object, not " + element.dump());
    const auto name = element.find("scenario");
    if (name == element.end()) return Json::array({element});
    if (element.size() > 1) refuse("a scenario has no members beside its name");
    if (!name->is_string()) refuse("a scenario has a name, not " + name->dump());
    return scenarioFaults(name->get<std::string>());
}

/// True with the fault's chance: the upper 53 bits are a number in [0, 1). Unlike the distributions
/// of the standard library, this is portable: a seed gives the same faults everywhere.
bool comesUp(Fault& fault) {
    return static_cast<double>(fault.random() >> 11) * 0x1p-53 < fault.chance;
}

}  // namespace

uint64_t Fault::delay() const {
    return kind->delivery == Delivery::kPlain ? number("ms", 0) : 0;
}

void Faults::add(const Json& list) {
    if (!list.is_array()) refuse("faults are a JSON array");
    std::deque<Fault> added;
    for (const Json& element : list) {
        for (const Json& json : expanded(element)) {
            added.push_back(parse(json));
            if (added.back().timesLeft == 0) added.pop_back();
        }
    }
    constexpr size_t kMost = 1000;
    if (faults_.size() + added.size() > kMost) refuse("no more than 1,000 faults wait at once");
    faults_.insert(faults_.end(), added.begin(), added.end());
    ++version_;
}

void Faults::clear() {
    faults_.clear();
    struck_.clear();
    taken_ = 0;
    ++version_;
}

std::optional<Fault> Faults::take(const std::string& action) {
    for (auto fault = faults_.begin(); fault != faults_.end(); ++fault) {
        const auto only = fault->members.find("action");
        if (only != fault->members.end() && *only != action) continue;
        if (!comesUp(*fault)) continue;
        ++taken_;
        ++version_;
        Fault taken = *fault;
        if (--fault->timesLeft == 0) faults_.erase(fault);
        return taken;
    }
    return std::nullopt;
}

void Faults::struck(uint64_t request, const Fault& fault, const std::string& action) {
    constexpr size_t kMost = 20;
    struck_.push_back({{"request", request}, {"kind", fault.kind->name}, {"action", action}});
    if (struck_.size() > kMost) struck_.pop_front();
    ++version_;
}

nlohmann::ordered_json Faults::report() const {
    auto list = nlohmann::ordered_json::array();
    for (const Fault& fault : faults_) {
        nlohmann::ordered_json one = fault.members;
        one["times"] = fault.timesLeft;
        list.push_back(std::move(one));
    }
    return {{"taken", taken_}, {"faults", list}, {"struck", struck_}};
}

nlohmann::ordered_json Faults::kinds() {
    const auto words = [](const char* text) {
        auto list = nlohmann::ordered_json::array();
        std::istringstream stream(text);
        for (std::string word; stream >> word;)
            list.push_back(word);
        return list;
    };
    auto kinds = nlohmann::ordered_json::array();
    for (const FaultKind& kind : kKinds)
        kinds.push_back({{"kind", kind.name}, {"members", words(kind.members)}});
    return {{"kinds", kinds}, {"numbers", words(kNumbers)}};
}

}  // namespace sandbox
