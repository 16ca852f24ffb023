#include "tools/shared/json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "common/ascii.h"

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

/// The length of the first UTF-8 character of a text; 0 if it is invalid. Unlike shownLength(),
/// accepts control characters.
size_t characterLength(std::string_view text) {
    if (const size_t shown = kspool::shownLength(text); shown > 0) return shown;
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80) return 1;
    const auto next = static_cast<unsigned char>(text.size() > 1 ? text[1] : 0);
    return lead == 0xc2 && next >= 0x80 && next < 0xa0 ? 2 : 0;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const size_t length = characterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string escaped(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const size_t length = characterLength(text);
        if (length == 0 || text.front() == '\\') {
            std::array<char, 8> code{};
            snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned char>(text.front()));
            result += code.data();
        } else {
            result += text.substr(0, length);
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return result;
}

bool needsEscapes(const Json& value) {
    if (value.is_string()) return !isUtf8(value.get_ref<const std::string&>());
    return value.is_array() && std::any_of(value.begin(), value.end(), needsEscapes);
}

void escapeTexts(Json& value) {
    if (value.is_string()) value = escaped(value.get_ref<const std::string&>());
    if (!value.is_array()) return;
    for (Json& one : value)
        escapeTexts(one);
}

void escapeMembers(Json& json) {
    if (!json.is_structured()) return;
    auto names = Json::array();
    for (const auto& [name, value] : json.items()) {
        if (json.is_object() && needsEscapes(value)) {
            escapeTexts(value);
            names.push_back(name);
        }
        escapeMembers(value);
    }
    if (!names.empty()) json["escaped"] = std::move(names);
}

}  // namespace

Json numberOrText(const std::string& field) {
    int64_t number = 0;
    const char* end = field.data() + field.size();
    const auto result = std::from_chars(field.data(), end, number);
    return result.ec == std::errc() && result.ptr == end ? Json(number) : Json(field);
}

void printJson(Json json, int indent) {
    escapeMembers(json);
    // The name of a member may come from a server, and may be invalid UTF-8 as well.
    printf("%s\n", json.dump(indent, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace tool
