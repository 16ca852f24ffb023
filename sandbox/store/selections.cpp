#include "sandbox/store/selections.h"

#include "sandbox/store/event.h"

namespace sandbox {
namespace {

/// A tag as a URL has it.
std::string encoded(std::string_view text) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
        if (letter || (byte >= '0' && byte <= '9')) {
            out += c;
        } else {
            out += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return out;
}

}  // namespace

Selections::Selections(Database& database) : database_(database) {
    database_.script(
        "CREATE TABLE IF NOT EXISTS selections (number INTEGER PRIMARY KEY, tag TEXT NOT NULL)");
}

void Selections::need(uint32_t number) {
    Query row = database_.query(
        "SELECT 1 WHERE ?1 > 0 AND (NOT EXISTS (SELECT 1 FROM selections)"
        " OR EXISTS (SELECT 1 FROM selections WHERE number = ?1))",
        number);
    if (!row.step()) {
        throw Event{kNoSelection, "no such data selection: " + std::to_string(number)};
    }
}

std::string Selections::tag(uint32_t number) {
    need(number);
    Query row =
        database_.query("SELECT tag FROM selections WHERE number = ? AND tag <> ''", number);
    return row.step() ? "1|" + encoded(row.text(0)) + "\n" : "0|\n";
}

void Selections::add(uint32_t number, const std::string& tag) {
    database_.run("INSERT OR REPLACE INTO selections VALUES (?, ?)", number, tag);
}

void Selections::clear() {
    database_.run("DELETE FROM selections");
}

}  // namespace sandbox
