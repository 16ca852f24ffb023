#include "sandbox/sandbox_actions.h"

namespace sandbox {
namespace {

constexpr Parameter kPath{"path", Type::kText};
constexpr Parameter kSource{"source", Type::kText};
constexpr Parameter kDestination{"destination", Type::kText};
constexpr Parameter kRecursive{"recursive", Type::kUint32};

std::string makeDirectory(Context& context, const Parameters& given) {
    context.names.mkdir(given.text("path"), context.now);
    return {};
}

std::string copyEntry(Context& context, const Parameters& given) {
    context.names.copy(given.text("source"), given.text("destination"), given.flag("recursive"));
    return {};
}

std::string moveEntry(Context& context, const Parameters& given) {
    context.names.move(given.text("source"), given.text("destination"));
    return {};
}

std::string deleteEntry(Context& context, const Parameters& given) {
    context.names.remove(given.text("path"), given.flag("recursive"));
    return {};
}

std::string listDirectory(Context& context, const Parameters& given) {
    return context.names.list(given.text("path"), given.flag("recursive"));
}

std::string tellTime(Context& context, const Parameters& /*given*/) {
    return std::to_string(context.now) + "\n";
}

std::string doNothing(Context& /*context*/, const Parameters& /*given*/) {
    return {};
}

constexpr Action kActions[] = {
    // name, service, permission, changes, body, parameters, handler
    {"mkdir", "metabase", "write", true, nullptr, {kPath}, makeDirectory},
    {"copy", "metabase", "write", true, nullptr, {kSource, kDestination, kRecursive}, copyEntry},
    {"move", "metabase", "write", true, nullptr, {kSource, kDestination, kRecursive}, moveEntry},
    {"delete", "metabase", "delete", true, nullptr, {kPath, kRecursive}, deleteEntry},
    {"dir", "metabase", "read", false, nullptr, {kPath, kRecursive}, listDirectory},
    {"gettime", "metabase", nullptr, false, nullptr, {}, tellTime},
    {"discover", "keepalive", nullptr, false, nullptr, {}, doNothing},
};

}  // namespace

const Action* findAction(const std::string& service, const std::string& name) {
    for (const Action& action : kActions) {
        if (name == action.name && service == action.service) return &action;
    }
    return nullptr;
}

}  // namespace sandbox
