#include "tools/mb/listing.h"

#include <charconv>
#include <cstdio>

#include "tools/shared/json.h"
#include "tools/shared/text.h"

namespace mb {
namespace {

constexpr size_t kShownOfProblem = 100;

/// Takes "NUMBER " from the beginning of the line.
template <typename Number>
bool takeNumber(std::string_view& line, Number& number) {
    const char* end = line.data() + line.size();
    const auto [next, error] = std::from_chars(line.data(), end, number);
    if (error != std::errc() || next == end || *next != ' ') return false;
    line.remove_prefix(static_cast<size_t>(next - line.data()) + 1);
    return true;
}

bool parseEntry(std::string_view line, Entry& entry) {
    if (line.size() < 2 || (line[0] != 'd' && line[0] != 'f') || line[1] != ' ') return false;
    entry.type = line[0];
    line.remove_prefix(2);
    if (!takeNumber(line, entry.size) || !takeNumber(line, entry.mtime)) return false;
    entry.path = line;
    return !line.empty();
}

}  // namespace

Listing parseListing(std::string_view text) {
    Listing listing;
    for (size_t number = 1; !text.empty(); ++number) {
        const size_t end = text.find('\n');
        const bool whole = end != std::string_view::npos;
        const std::string_view line = text.substr(0, end);
        Entry entry{};
        if (whole && parseEntry(line, entry)) {
            listing.entries.push_back(std::move(entry));
        } else {
            const std::string shown(line.substr(0, kShownOfProblem));
            listing.problems.push_back("line " + std::to_string(number) + " of the listing is " +
                                       (whole ? "no entry: " : "cut: ") + tool::printable(shown));
        }
        text.remove_prefix(whole ? end + 1 : text.size());
    }
    return listing;
}

void printListing(const Listing& listing) {
    for (const Entry& entry : listing.entries) {
        const bool folder = entry.type == 'd';
        printf("%c %11s  %s  %s\n", entry.type, folder ? "-" : tool::humanBytes(entry.size).c_str(),
               tool::localTime(entry.mtime).c_str(), tool::printable(entry.path).c_str());
    }
}

void printListingJson(const Listing& listing) {
    auto list = nlohmann::ordered_json::array();
    for (const Entry& entry : listing.entries) {
        list.push_back({{"type", std::string(1, entry.type)},
                        {"size", entry.size},
                        {"mtime", entry.mtime},
                        {"path", entry.path}});
    }
    tool::printJson(list, 2);
}

}  // namespace mb
