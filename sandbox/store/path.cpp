#include "sandbox/store/path.h"

#include <algorithm>
#include <cstdint>

#include "sandbox/store/event.h"

namespace sandbox {
namespace {

constexpr size_t kLongestName = 255;
constexpr size_t kLongestPath = 65'535;

[[noreturn]] void refusePath(const std::string& why) {
    throw Event{POOL_EVENT_BAD_PATH, "path not valid: " + why};
}

/// The length of the UTF-8 character at the start of `text`, 0 if it is invalid. The ranges of the
/// first and second byte exclude overlong forms, surrogates and numbers beyond U+10FFFF; all
/// further bytes have the same range.
size_t characterLength(std::string_view text) {
    struct Row {
        uint8_t first, last, secondFrom, secondTo;
        size_t length;
    };
    static constexpr Row kRows[] = {
        {0x00, 0x7f, 0, 0, 1},       {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3},
        {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3},
        {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
    };
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(text[at]); };
    for (const Row& row : kRows) {
        if (byte(0) < row.first || byte(0) > row.last) continue;
        if (row.length > text.size()) return 0;
        if (row.length > 1 && (byte(1) < row.secondFrom || byte(1) > row.secondTo)) return 0;
        for (size_t at = 2; at < row.length; ++at) {
            if (byte(at) < 0x80 || byte(at) > 0xbf) return 0;
        }
        return row.length;
    }
    return 0;
}

/// C0 controls and DEL, and the C1 controls U+0080 to U+009F.
bool isControl(std::string_view character) {
    const auto first = static_cast<uint8_t>(character[0]);
    if (character.size() == 1) return first < 0x20 || first == 0x7f;
    return first == 0xc2 && static_cast<uint8_t>(character[1]) < 0xa0;
}

void checkName(std::string_view name) {
    if (name == "." || name == "..") refusePath("'.' and '..' are no names");
    if (name.size() > kLongestName) refusePath("a name is longer than 255 bytes");
    while (!name.empty()) {
        const size_t length = characterLength(name);
        if (length == 0) refusePath("a name is not UTF-8");
        if (isControl(name.substr(0, length))) refusePath("a name has a control character");
        name.remove_prefix(length);
    }
}

}  // namespace

std::string normalPath(std::string_view text) {
    if (text.size() > kLongestPath) refusePath("it is longer than 65535 bytes");
    if (!text.starts_with('/')) refusePath("it does not start with '/'");
    std::string path;
    while (!text.empty()) {
        text.remove_prefix(1);
        const std::string_view name = text.substr(0, std::min(text.find('/'), text.size()));
        text.remove_prefix(name.size());
        if (name.empty()) continue;
        checkName(name);
        path.append("/").append(name);
    }
    return path;
}

std::string shownPath(const std::string& path) {
    return path.empty() ? "/" : path;
}

std::string parentOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

}  // namespace sandbox
