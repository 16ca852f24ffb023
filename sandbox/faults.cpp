#include "sandbox/faults.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

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
    answer.type = fault.text("type", answer.type);
    answer.body = fault.text("body", "");
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

/// An event's answer. A member that the fault gives replaces the default one; null leaves it out.
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
}

void event(const Fault& fault, const Json& reporter, Answer& answer) {
    eventWithCode(fault, reporter, kServerFailed, answer);
}

/// The code goes out as ordered, whatever its JSON type and value; by default it is left out.
void badEvent(const Fault& fault, const Json& reporter, Answer& answer) {
    eventWithCode(fault, reporter, nullptr, answer);
}

constexpr FaultKind kKinds[] = {
    // name, carried out, refuses, delivery, change, members
    {"delay", true, false, Delivery::kPlain, unchanged, "ms "},
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
    {"redirect", false, false, Delivery::kPlain, redirect, "code location "},
    {"event", false, true, Delivery::kPlain, event,
     "code status description severity serverAddress sourceApplication "},
    {"bad-event", false, false, Delivery::kPlain, badEvent,
     "code status description severity serverAddress sourceApplication "},
};

constexpr char kCommonMembers[] = "kind times chance seed action ";

bool listed(const std::string& members, const std::string& name) {
    const size_t at = members.find(name + " ");
    return at != std::string::npos && (at == 0 || members[at - 1] == ' ');
}

/// An event of a bad event would be a promise that nobody looked up: see FaultKind::refuses.
bool isEventCode(const Json& value) {
    return value.is_number_unsigned() && value > 0 && value <= UINT32_MAX;
}

/// Checks types and ranges now, so that Fault::number() and Fault::text() cannot throw when the
/// fault strikes: the client would see a closed connection, and nobody the mistake in the order.
void checkMember(const FaultKind& kind, const std::string& name, const Json& value) {
    const bool event = std::string_view(kind.members).starts_with("code status");
    const bool number = listed("ms bytes status times seed ", name) || (name == "code" && !event);
    const bool text = listed("kind type body text location action ", name);
    const bool status = name == "status" || (name == "code" && !event);
    if ((number && !value.is_number_unsigned()) || (text && !value.is_string()) ||
        (name == "chance" && !value.is_number()) ||
        (name == "retryAfter" && !value.is_string() && !value.is_number_unsigned()) ||
        (name == "code" && kind.change == badEvent && isEventCode(value)) ||
        (status && (value < 200 || value > 999))) {
        throw std::runtime_error(std::string("member '") + name + "' of fault " + kind.name +
                                 " has a wrong type or value");
    }
}

Fault parse(const Json& json) {
    const std::string name = json.at("kind").get<std::string>();
    Fault fault;
    for (const FaultKind& kind : kKinds) {
        if (name == kind.name) fault.kind = &kind;
    }
    if (fault.kind == nullptr) throw std::runtime_error("unknown kind of fault '" + name + "'");
    for (const auto& [member, value] : json.items()) {
        if (!listed(kCommonMembers, member) && !listed(fault.kind->members, member))
            throw std::runtime_error(std::string("fault ")
                                         .append(name)
                                         .append(" has no member \'")
                                         .append(member)
                                         .append("\'"));
        checkMember(*fault.kind, member, value);
    }
    fault.members = json;
    fault.timesLeft = json.value("times", uint64_t{1});
    fault.chance = json.value("chance", 1.0);
    fault.random.seed(json.value("seed", uint64_t{1}));
    return fault;
}

/// True with the fault's chance: the upper 53 bits as a number from 0 to below 1. The distributions
/// of the standard library are not portable, this is: a seed means the same faults everywhere.
bool comesUp(Fault& fault) {
    return static_cast<double>(fault.random() >> 11) * 0x1p-53 < fault.chance;
}

}  // namespace

uint64_t Fault::delay() const {
    return kind->delivery == Delivery::kPlain ? number("ms", 0) : 0;
}

void Faults::add(const Json& list) {
    if (!list.is_array()) throw std::runtime_error("faults are a JSON array");
    std::deque<Fault> added;
    for (const Json& json : list) {
        if (!json.is_object()) throw std::runtime_error("a fault is a JSON object");
        added.push_back(parse(json));
        if (added.back().timesLeft == 0) added.pop_back();
    }
    faults_.insert(faults_.end(), added.begin(), added.end());
}

void Faults::clear() {
    faults_.clear();
    taken_ = 0;
}

std::optional<Fault> Faults::take(const std::string& action) {
    for (auto fault = faults_.begin(); fault != faults_.end(); ++fault) {
        const auto only = fault->members.find("action");
        if (only != fault->members.end() && *only != action) continue;
        if (!comesUp(*fault)) continue;
        ++taken_;
        Fault taken = *fault;
        if (--fault->timesLeft == 0) faults_.erase(fault);
        return taken;
    }
    return std::nullopt;
}

nlohmann::ordered_json Faults::report() const {
    auto list = nlohmann::ordered_json::array();
    for (const Fault& fault : faults_) {
        nlohmann::ordered_json one = fault.members;
        one["times"] = fault.timesLeft;
        list.push_back(std::move(one));
    }
    return {{"taken", taken_}, {"faults", list}};
}

}  // namespace sandbox
