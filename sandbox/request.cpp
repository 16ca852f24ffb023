#include "sandbox/request.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iterator>
#include <nlohmann/json.hpp>

#include "sandbox/store/characters.h"
#include "sandbox/store/event.h"

namespace sandbox {
namespace {

constexpr size_t kRequestIdLength = 32;

[[noreturn]] void refuse(const std::string& text) {
    throw Event{POOL_EVENT_BAD_REQUEST, text};
}

bool standsForItself(char c) {
    return isLetterOrDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

std::string decode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t at = 0; at < text.size(); ++at) {
        if (standsForItself(text[at])) {
            decoded += text[at];
            continue;
        }
        const int high =
            text[at] == '%' && at + 2 < text.size() ? capitalHexValue(text[at + 1]) : -1;
        const int low = high >= 0 ? capitalHexValue(text[at + 2]) : -1;
        if (low < 0) {
            refuse(
                "malformed parameters: only letters, digits and -._~ stand for themselves, "
                "every other byte is %XX with capital digits");
        }
        decoded += static_cast<char>(high * 16 + low);
        at += 2;
    }
    return decoded;
}

template <typename Number>
bool isNumber(const std::string& text) {
    Number number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end;
}

}  // namespace

Pairs decodePairs(std::string_view text) {
    Pairs pairs;
    while (!text.empty()) {
        const size_t end = std::min(text.find('&'), text.size());
        const std::string_view pair = text.substr(0, end);
        const size_t equals = pair.find('=');
        if (equals == std::string_view::npos || equals == 0)
            refuse("malformed parameters: each is NAME=VALUE");
        pairs.emplace_back(decode(pair.substr(0, equals)), decode(pair.substr(equals + 1)));
        if (end + 1 == text.size()) refuse("malformed parameters: nothing follows the last '&'");
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return pairs;
}

int64_t Parameters::number(const char* name) const {
    const std::string& text = values_.at(name);
    if (text.front() == '-') return strtoll(text.c_str(), nullptr, 10);
    return static_cast<int64_t>(strtoull(text.c_str(), nullptr, 10));
}

void checkValue(const Parameter& row, const std::string& value) {
    struct Kind {
        Type type;
        const char* description;
        bool (*matches)(const std::string&);
    };
    static constexpr Kind kKinds[] = {
        {Type::kText, "a text", [](const std::string&) { return true; }},
        {Type::kUint32, "a number from 0 to 4294967295", isNumber<uint32_t>},
        {Type::kInt32, "a number of 32 bits", isNumber<int32_t>},
        {Type::kUint64, "a number of 64 bits, not negative", isNumber<uint64_t>},
        {Type::kInt64, "a number of 64 bits", isNumber<int64_t>},
    };
    const Kind& kind = *std::find_if(std::begin(kKinds), std::end(kKinds),
                                     [&](const Kind& one) { return one.type == row.type; });
    if (!kind.matches(value))
        refuse("parameter '" + std::string(row.name) + "' is not " + kind.description);
}

void checkRequestId(const std::string& id) {
    if (id.size() != kRequestIdLength || !std::all_of(id.begin(), id.end(), isHexDigit))
        refuse("Request-Id is missing or not 32 hexadecimal digits");
}

bool hasMediaType(const std::string& header, std::string_view type) {
    return header.starts_with(type) && (header.size() == type.size() || header[type.size()] == ';');
}

Answer problem(unsigned status, const nlohmann::ordered_json& members) {
    nlohmann::ordered_json document = {{"type", "about:blank"}, {"status", status}};
    for (const auto& [name, value] : members.items()) {
        if (!value.is_null()) document[name] = value;
    }
    Answer answer;
    answer.status = status;
    answer.type = "application/problem+json";
    // A detail may quote a client's bytes. JSON is UTF-8, so invalid bytes are replaced by U+FFFD;
    // otherwise dump() would throw.
    answer.body =
        document.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    return answer;
}

}  // namespace sandbox
