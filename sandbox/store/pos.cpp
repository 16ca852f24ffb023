#include "sandbox/store/pos.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <memory>

#include "sandbox/store/event.h"

namespace sandbox {
namespace {

enum class Kind : uint8_t { Int, Long, Text, Char };

struct Field {
    const char* name;
    Kind kind;
    const char* any;  ///< as a filter's value, what matches every PO
};

constexpr Field kFields[kPOFields] = {
    {"dsid", Kind::Int, "0"},         {"kind", Kind::Int, "0"},
    {"origin", Kind::Text, ""},       {"owner", Kind::Int, "-1"},
    {"group", Kind::Int, "-1"},       {"client", Kind::Text, "*"},
    {"policy", Kind::Text, "*"},      {"image", Kind::Text, "*"},
    {"folder", Kind::Text, "*"},      {"name", Kind::Text, "*"},
    {"digest", Kind::Text, "*"},      {"type", Kind::Char, "*"},
    {"format", Kind::Text, "*"},      {"label", Kind::Text, "*"},
    {"application", Kind::Text, "*"}, {"size", Kind::Long, "-1"},
    {"mtime", Kind::Long, "-1"},      {"ctime", Kind::Long, "-1"},
    {"backuptime", Kind::Long, "-1"}, {"expires", Kind::Long, "-1"},
    {"segments", Kind::Long, "-1"},   {"newsegments", Kind::Long, "-1"},
    {"dcid", Kind::Long, "-1"},       {"mode", Kind::Int, "-1"},
    {"flags", Kind::Int, "-1"},       {"comment", Kind::Text, "*"},
};

constexpr const char* kTypes[] = {"int", "long", "text", "char"};
constexpr size_t kDsid = 0;
constexpr size_t kKey[] = {5, 6, 7, 8, 9};    ///< what a PO is known by
constexpr size_t kOrder[] = {8, 9, 5, 6, 7};  ///< how POs are sorted

using Fields = std::array<std::string_view, kPOFields>;

bool isNumber(const Field& field) {
    return field.kind == Kind::Int || field.kind == Kind::Long;
}

[[noreturn]] void refuse(const std::string& what, size_t line) {
    throw Event{kBadPO,
                line == 0 ? "filter: " + what : "line " + std::to_string(line) + ": " + what};
}

int64_t numberOf(const Field& field, std::string_view text, size_t line) {
    int64_t wide = 0;
    int32_t narrow = 0;
    const char* end = text.data() + text.size();
    const auto result = field.kind == Kind::Int ? std::from_chars(text.data(), end, narrow)
                                                : std::from_chars(text.data(), end, wide);
    if (result.ec != std::errc() || result.ptr != end) {
        refuse(std::string(field.name) + " is no " + kTypes[static_cast<size_t>(field.kind)], line);
    }
    return field.kind == Kind::Int ? narrow : wide;
}

/// Takes a line apart; line 0 is a filter.
Fields split(std::string_view text, size_t line) {
    Fields fields;
    for (size_t i = 0; i < kPOFields; ++i) {
        const size_t end = text.find('|');
        const bool last = i + 1 == kPOFields;
        if (last != (end == std::string_view::npos)) refuse("not of 26 fields", line);
        fields[i] = text.substr(0, end);
        text.remove_prefix(last ? text.size() : end + 1);
        const auto control = [](char c) {
            return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        };
        if (std::any_of(fields[i].begin(), fields[i].end(), control)) {
            refuse(std::string(kFields[i].name) + " has a control character", line);
        }
        if (isNumber(kFields[i])) numberOf(kFields[i], fields[i], line);
        if (kFields[i].kind == Kind::Char && fields[i].size() != 1) {
            refuse(std::string(kFields[i].name) + " is not one character", line);
        }
    }
    return fields;
}

std::string join(const char* const* texts, const char* separator) {
    std::string out;
    for (size_t i = 0; i < kPOFields; ++i)
        out.append(i == 0 ? "" : separator).append(texts[i]);
    return out;
}

const std::string& namesLine() {
    static const std::string line = [] {
        const char* names[kPOFields];
        for (size_t i = 0; i < kPOFields; ++i)
            names[i] = kFields[i].name;
        return join(names, "|") + "\n";
    }();
    return line;
}

const std::string& typesLine() {
    static const std::string line = [] {
        const char* types[kPOFields];
        for (size_t i = 0; i < kPOFields; ++i)
            types[i] = kTypes[static_cast<size_t>(kFields[i].kind)];
        return join(types, "|") + "\n";
    }();
    return line;
}

std::string column(size_t field) {
    return "f" + std::to_string(field + 1);
}

template <typename Columns>
std::string columns(const Columns& fields, const std::string& between, const std::string& after) {
    std::string out;
    for (const size_t field : fields)
        out.append(out.empty() ? "" : between).append(column(field)).append(after);
    return out;
}

std::vector<size_t> allFields() {
    std::vector<size_t> fields(kPOFields);
    for (size_t i = 0; i < kPOFields; ++i)
        fields[i] = i;
    return fields;
}

template <typename Visit>
void eachLine(const std::string& text, Visit visit) {
    size_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line(text.data() + at, end - at);
        ++number;
        const bool names =
            number == 1 && line == std::string_view(namesLine()).substr(0, namesLine().size() - 1);
        if (!names) visit(split(line, number), number);
        at = end + 1;
    }
}

void checkSelection(const Fields& fields, uint32_t dataselection, size_t line) {
    const int64_t dsid = numberOf(kFields[kDsid], fields[kDsid], line);
    if (dsid != 0 && static_cast<uint32_t>(dsid) != dataselection) {
        refuse("dsid is that of another data selection", line);
    }
}

/// Binds the fields after the data selection.
void bindFields(Query& query, uint32_t dataselection, const Fields& fields, size_t line) {
    int at = 0;
    query.bindAt(++at, dataselection);
    for (size_t i = 0; i < kPOFields; ++i) {
        if (i == kDsid) {
            query.bindAt(++at, static_cast<int32_t>(dataselection));
        } else if (isNumber(kFields[i])) {
            query.bindAt(++at, numberOf(kFields[i], fields[i], line));
        } else {
            query.bindAt(++at, fields[i]);
        }
    }
}

/// A filter as a condition, with the values that it compares with.
struct Condition {
    std::string sql = "ds = ?";
    std::vector<std::string> texts;
    std::vector<std::pair<int, int64_t>> numbers;
    std::vector<std::pair<int, size_t>> textPlaces;  ///< place in the statement, index in `texts`
    int places = 1;

    void number(const std::string& test, int64_t value) {
        sql += " AND " + test;
        numbers.emplace_back(++places, value);
    }
    void text(const std::string& test, std::string value) {
        sql += " AND " + test;
        texts.push_back(std::move(value));
        textPlaces.emplace_back(++places, texts.size() - 1);
    }

    /// What a pattern begins with is a range of the index; the rest is matched one by one.
    void pattern(const std::string& name, std::string_view value) {
        const size_t wild = value.find_first_of("*?");
        if (wild == std::string_view::npos) return text(name + " = ?", std::string(value));
        const std::string prefix(value.substr(0, wild));
        if (!prefix.empty()) {
            text(name + " >= ?", prefix);
            std::string after = prefix;
            after.back() = static_cast<char>(static_cast<unsigned char>(after.back()) + 1);
            // Bytes of 0xff are in no UTF-8.
            text(name + " < ?", after);
        }
        std::string glob;
        for (const char c : value)
            glob += c == '[' ? "[[]" : std::string(1, c);
        text(name + " GLOB ?", glob);
    }

    void bind(Query& query, uint32_t dataselection) const {
        query.bindAt(1, dataselection);
        for (const auto& [place, value] : numbers)
            query.bindAt(place, value);
        for (const auto& [place, index] : textPlaces)
            query.bindAt(place, texts[index]);
    }
};

Condition conditionOf(const std::string& filter) {
    const Fields fields = split(filter, 0);
    Condition condition;
    for (size_t i = 0; i < kPOFields; ++i) {
        if (fields[i] == kFields[i].any) continue;
        if (isNumber(kFields[i])) {
            condition.number(column(i) + " = ?", numberOf(kFields[i], fields[i], 0));
        } else {
            condition.pattern(column(i), fields[i]);
        }
    }
    return condition;
}

std::string head(uint64_t count) {
    return namesLine() + typesLine() + std::to_string(count) + "\n";
}

}  // namespace

POStore::POStore(Database& database) : database_(database) {
    std::string definition = "CREATE TABLE IF NOT EXISTS pos (ds INTEGER NOT NULL";
    for (size_t i = 0; i < kPOFields; ++i)
        definition +=
            ", " + column(i) + (isNumber(kFields[i]) ? " INTEGER" : " TEXT") + " NOT NULL";
    definition += ", PRIMARY KEY (ds, " + columns(kKey, ", ", "") + ")) WITHOUT ROWID";
    database_.script(definition.c_str());
    database_.script(
        ("CREATE INDEX IF NOT EXISTS pos_order ON pos (ds, " + columns(kOrder, ", ", "") + ")")
            .c_str());
    database_.script("CREATE INDEX IF NOT EXISTS pos_name ON pos (ds, f10)");
}

std::string POStore::add(uint32_t dataselection, const std::string& text, OnKnown onKnown) {
    static const std::string values = [] {
        std::string marks = "?";
        for (size_t i = 0; i < kPOFields; ++i)
            marks += ", ?";
        return " INTO pos VALUES (" + marks + ") RETURNING 1";
    }();
    const char* sql = database_.kept(
        (onKnown == OnKnown::Replace ? "INSERT OR REPLACE" : "INSERT OR IGNORE") + values);
    uint64_t taken = 0;
    eachLine(text, [&](const Fields& fields, size_t line) {
        checkSelection(fields, dataselection, line);
        Query query = database_.query(sql);
        bindFields(query, dataselection, fields, line);
        while (query.step())
            ++taken;
    });
    return head(taken);
}

std::string POStore::expire(uint32_t dataselection, const std::string& text) {
    const char* sql = database_.kept("DELETE FROM pos WHERE ds = ? AND " +
                                     columns(kKey, " AND ", " = ?") + " RETURNING 1");
    uint64_t gone = 0;
    eachLine(text, [&](const Fields& fields, size_t line) {
        checkSelection(fields, dataselection, line);
        Query query = database_.query(sql);
        int at = 0;
        query.bindAt(++at, dataselection);
        for (const size_t field : kKey)
            query.bindAt(++at, fields[field]);
        while (query.step())
            ++gone;
    });
    return std::to_string(gone) + "\n";
}

namespace {

const std::string& selection() {
    static const std::string sql = "SELECT " + columns(allFields(), ", ", "") + " FROM pos ";
    return sql;
}

const std::string& order() {
    static const std::string sql = " ORDER BY " + columns(kOrder, ", ", "");
    return sql;
}

void appendLine(const Query& query, std::string& lines) {
    for (size_t i = 0; i < kPOFields; ++i) {
        const int at = static_cast<int>(i);
        if (i > 0) lines += '|';
        if (isNumber(kFields[i])) {
            lines += std::to_string(query.number(at));
        } else {
            lines += query.text(at);
        }
    }
    lines += '\n';
}

/// A long answer, a page at a time: each begins behind the last line of the one before.
class Pages {
  public:
    Pages(Database& database, uint32_t dataselection, Condition condition)
        : database_(database),
          dataselection_(dataselection),
          condition_(std::move(condition)),
          last_(std::size(kOrder)) {}

    std::string next() {
        Query query = database_.query(database_.kept(
            selection() + "INDEXED BY pos_order WHERE " + condition_.sql + " AND (" +
            columns(kOrder, ", ", "") + ") > (?, ?, ?, ?, ?)" + order() + " LIMIT 5000"));
        condition_.bind(query, dataselection_);
        int at = condition_.places;
        for (const std::string& value : last_)
            query.bindAt(++at, value);
        std::string lines;
        std::vector<std::string> reached = last_;
        while (query.step()) {
            appendLine(query, lines);
            for (size_t i = 0; i < std::size(kOrder); ++i)
                reached[i] = query.text(static_cast<int>(kOrder[i]));
        }
        last_ = std::move(reached);
        return lines;
    }

  private:
    Database& database_;
    uint32_t dataselection_;
    Condition condition_;
    std::vector<std::string> last_;  ///< what the order goes by, of the last line
};

}  // namespace

std::string POStore::find(uint32_t dataselection, const std::string& filter,
                          std::function<std::string()>& more) {
    constexpr uint64_t kAtOnce = 20'000;
    Condition condition = conditionOf(filter);
    uint64_t count = 0;
    {
        Query query =
            database_.query(database_.kept("SELECT count(*) FROM pos WHERE " + condition.sql));
        condition.bind(query, dataselection);
        if (query.step()) count = static_cast<uint64_t>(query.number(0));
    }
    if (count > kAtOnce) {
        auto pages = std::make_shared<Pages>(database_, dataselection, std::move(condition));
        more = [pages] { return pages->next(); };
        return head(count);
    }
    // Sorted afterwards: the order's index would have all POs looked at for the few that match.
    static const std::string sorted = " ORDER BY +" + columns(kOrder, ", +", "");
    Query query = database_.query(database_.kept(selection() + "WHERE " + condition.sql + sorted));
    condition.bind(query, dataselection);
    std::string lines = head(count);
    while (query.step())
        appendLine(query, lines);
    return lines;
}

void POStore::clear() {
    database_.run("DELETE FROM pos");
}

}  // namespace sandbox
