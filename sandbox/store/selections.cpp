#include "sandbox/store/selections.h"

#include <string_view>

#include "sandbox/store/characters.h"
#include "sandbox/store/event.h"

namespace sandbox {
namespace {

/// URL-encodes all but letters and digits, so that a '|' or LF in a tag cannot break the answer's
/// line.
std::string encoded(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (isLetterOrDigit(c)) {
            out += c;
        } else {
            out += '%';
            appendHex(out, static_cast<uint8_t>(c), kCapitalHex);
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
        throw Event{POOL_EVENT_NO_SELECTION, "no such data selection: " + std::to_string(number)};
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

void Selections::each(uint32_t after,
                      const std::function<bool(uint32_t, std::string_view tag)>& visit) {
    Query row = database_.query(
        "SELECT number, tag FROM selections WHERE number > ? ORDER BY number", after);
    bool more = true;
    while (more && row.step())
        more = visit(static_cast<uint32_t>(row.number(0)), row.text(1));
}

void Selections::clear() {
    database_.run("DELETE FROM selections");
}

}  // namespace sandbox
