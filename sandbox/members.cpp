#include "sandbox/members.h"

#include <stdexcept>

namespace sandbox {
namespace {

using Json = nlohmann::json;

/// A value for a message, truncated to keep the message short.
std::string shown(const Json& value) {
    constexpr size_t kLongest = 100;
    const std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    return text.size() > kLongest ? text.substr(0, kLongest) + "..." : text;
}

bool isInt64(const Json& value) {
    return value.is_number_integer() && (!value.is_number_unsigned() || value <= INT64_MAX);
}

}  // namespace

const Json* Members::find(const Json& object, const char* name, bool needed) const {
    if (!object.is_object())
        throw std::runtime_error(std::string(owner_) + " is a JSON object, not " + shown(object));
    const auto member = object.find(name);
    if (member != object.end()) return &*member;
    if (needed)
        throw std::runtime_error(std::string(owner_) + " needs a '" + name + "': " + shown(object));
    return nullptr;
}

void Members::refuse(const char* name, const std::string& wanted, const Json& given) const {
    throw std::runtime_error("'" + std::string(name) + "' of " + owner_ + " is " + wanted +
                             ", not " + shown(given));
}

std::string Members::text(const Json& object, const char* name,
                          const std::optional<std::string>& otherwise) const {
    const Json* member = find(object, name, !otherwise);
    if (member == nullptr) return *otherwise;
    if (!member->is_string()) refuse(name, "a text", *member);
    return member->get<std::string>();
}

int64_t Members::number(const Json& object, const char* name,
                        const std::optional<int64_t>& otherwise, int64_t least,
                        int64_t most) const {
    const Json* member = find(object, name, !otherwise);
    if (member == nullptr) return *otherwise;
    if (!isInt64(*member) || *member < least || *member > most) {
        refuse(name,
               least == INT64_MIN
                   ? "a whole number"
                   : "a number from " + std::to_string(least) + " to " + std::to_string(most),
               *member);
    }
    return member->get<int64_t>();
}

Json parseJson(const std::string& text) {
    if (text.empty()) return nullptr;
    // The library parses any depth, but prints and copies by recursion: a deeply nested text would
    // exhaust the stack.
    constexpr int kDeepest = 100;
    const auto check = [](int depth, Json::parse_event_t /*event*/, Json& /*parsed*/) {
        if (depth >= kDeepest)  // counted from 0
            throw std::runtime_error("JSON that is nested deeper than 100 levels");
        return true;
    };
    try {
        return Json::parse(text, check);
    } catch (const Json::parse_error& error) {
        throw std::runtime_error("not JSON: byte " + std::to_string(error.byte) +
                                 " is not understood");
    }
}

}  // namespace sandbox
