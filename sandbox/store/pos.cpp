#include "sandbox/store/pos.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "sandbox/store/characters.h"
#include "sandbox/store/event.h"
#include "sandbox/store/statistics.h"

namespace sandbox {
namespace {

enum class Kind : uint8_t { kInt, kLong, kText, kChar };

struct Field {
    const char* name;
    Kind kind;
    const char* any;  ///< a filter's value that matches every PO
};

constexpr Field kFields[kPOFields] = {
    {"dsid", Kind::kInt, "0"},         {"kind", Kind::kInt, "0"},
    {"origin", Kind::kText, ""},       {"owner", Kind::kInt, "-1"},
    {"group", Kind::kInt, "-1"},       {"client", Kind::kText, "*"},
    {"policy", Kind::kText, "*"},      {"image", Kind::kText, "*"},
    {"folder", Kind::kText, "*"},      {"name", Kind::kText, "*"},
    {"digest", Kind::kText, "*"},      {"type", Kind::kChar, "*"},
    {"format", Kind::kText, "*"},      {"label", Kind::kText, "*"},
    {"application", Kind::kText, "*"}, {"size", Kind::kLong, "-1"},
    {"mtime", Kind::kLong, "-1"},      {"ctime", Kind::kLong, "-1"},
    {"backuptime", Kind::kLong, "-1"}, {"expires", Kind::kLong, "-1"},
    {"segments", Kind::kLong, "-1"},   {"newsegments", Kind::kLong, "-1"},
    {"dcid", Kind::kLong, "-1"},       {"mode", Kind::kInt, "-1"},
    {"flags", Kind::kInt, "-1"},       {"comment", Kind::kText, "*"},
};

constexpr const char* kTypes[] = {"int", "long", "text", "char"};
constexpr size_t kDsid = 0;
constexpr size_t kKey[] = {5, 6, 7, 8, 9};    ///< identify a PO in its data selection
constexpr size_t kOrder[] = {8, 9, 5, 6, 7};  ///< the same fields in the order of an answer

using Fields = std::array<std::string_view, kPOFields>;

bool isNumber(const Field& field) {
    return field.kind == Kind::kInt || field.kind == Kind::kLong;
}

[[noreturn]] void refuse(const std::string& what, size_t line) {
    throw Event{POOL_EVENT_BAD_PO,
                line == 0 ? "filter: " + what : "line " + std::to_string(line) + ": " + what};
}

int64_t numberOf(const Field& field, std::string_view text, size_t line) {
    int64_t wide = 0;
    int32_t narrow = 0;
    const char* end = text.data() + text.size();
    const auto result = field.kind == Kind::kInt ? std::from_chars(text.data(), end, narrow)
                                                 : std::from_chars(text.data(), end, wide);
    if (result.ec != std::errc() || result.ptr != end) {
        refuse(std::string(field.name) + " is no " + kTypes[static_cast<size_t>(field.kind)], line);
    }
    return field.kind == Kind::kInt ? narrow : wide;
}

/// Splits a line into its fields and checks their types. Line 0 means a filter, for descriptions.
Fields split(std::string_view text, size_t line) {
    Fields fields;
    for (size_t i = 0; i < kPOFields; ++i) {
        const size_t end = text.find('|');
        const bool last = i + 1 == kPOFields;
        if (last != (end == std::string_view::npos)) refuse("not of 26 fields", line);
        fields[i] = text.substr(0, end);
        text.remove_prefix(last ? text.size() : end + 1);
        if (!isField(fields[i])) {
            refuse(std::string(kFields[i].name) + " has a control character", line);
        }
        if (isNumber(kFields[i])) numberOf(kFields[i], fields[i], line);
        if (kFields[i].kind == Kind::kChar && fields[i].size() != 1) {
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

/// Visits the POs of a text: all lines except a first line with the names of the fields.
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

/// Binds the data selection, then all fields. A dsid of 0 becomes the data selection's number.
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

/// The first text behind all those that begin with `prefix`, which may have any bytes. Empty when
/// there is none: behind 0xff comes no byte.
std::string endOfRange(std::string prefix) {
    while (prefix.ends_with('\xff'))
        prefix.pop_back();
    if (!prefix.empty())
        prefix.back() = static_cast<char>(static_cast<unsigned char>(prefix.back()) + 1);
    return prefix;
}

/// A filter as an SQL condition. Values are bound and not part of the SQL: filters that set the
/// same criteria share one prepared statement, and no value can be mistaken for SQL.
struct Condition {
    std::string sql = "ds = ?";
    std::vector<std::string> texts;
    std::vector<std::pair<int, int64_t>> numbers;
    std::vector<std::pair<int, size_t>> textPlaces;  ///< place in the statement, index in `texts`
    int places = 1;  ///< values in the statement so far; the first is the data selection

    void number(const std::string& test, int64_t value) {
        sql += " AND " + test;
        numbers.emplace_back(++places, value);
    }
    void text(const std::string& test, std::string value) {
        sql += " AND " + test;
        texts.push_back(std::move(value));
        textPlaces.emplace_back(++places, texts.size() - 1);
    }

    /// The bytes before the first wildcard are a range, which an index on the field can seek; GLOB
    /// then tests the rows of the range only. Of a pattern alone SQLite would test every row.
    void pattern(const std::string& name, std::string_view value) {
        const size_t wild = value.find_first_of("*?");
        if (wild == std::string_view::npos) return text(name + " = ?", std::string(value));
        const std::string prefix(value.substr(0, wild));
        if (!prefix.empty()) text(name + " >= ?", prefix);
        if (const std::string end = endOfRange(prefix); !end.empty()) text(name + " < ?", end);
        // A '[' would start a set of characters, which filters do not have.
        std::string glob;
        for (const char c : value)
            glob += c == '[' ? "[[]" : std::string(1, c);
        // `|| ''` keeps SQLite from deriving the prefix itself: for a plain bound value it would
        // compile the statement again for each value.
        text(name + " GLOB ? || ''", glob);
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
    // f10 is the name: without the index, a filter by name alone would read all rows.
    database_.script("CREATE INDEX IF NOT EXISTS pos_name ON pos (ds, f10)");
    database_.script(kStatistics);
}

std::string POStore::add(uint32_t dataselection, const std::string& text, OnKnown onKnown) {
    static const std::string values = [] {
        std::string marks = "?";
        for (size_t i = 0; i < kPOFields; ++i)
            marks += ", ?";
        return " INTO pos VALUES (" + marks + ") RETURNING 1";
    }();
    const char* sql = database_.kept(
        (onKnown == OnKnown::kReplace ? "INSERT OR REPLACE" : "INSERT OR IGNORE") + values);
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

/// The SQL that reads the lines of an answer.
std::string linesSql(const Condition& condition, bool many) {
    // The unary plus keeps SQLite from reading in the order of the index pos_order, which may visit
    // all POs: sorting the few that match is cheaper. Many POs are read in the order of the index:
    // sorting would copy a whole data selection before the first line is sent.
    return selection() + "WHERE " + condition.sql + " ORDER BY " + (many ? "" : "+") +
           columns(kOrder, many ? ", " : ", +", "");
}

constexpr char kCount[] = "SELECT count(*) FROM pos WHERE ";

uint64_t countOf(Database& database, uint32_t dataselection, const Condition& condition) {
    Query query = database.query(database.kept(kCount + condition.sql));
    condition.bind(query, dataselection);
    return query.step() ? static_cast<uint64_t>(query.number(0)) : 0;
}

/// A long answer, read in one transaction on its own connection: changes made while it is sent do
/// not affect it.
class Snapshot {
  public:
    Snapshot(std::unique_ptr<Database> reader, uint32_t dataselection, Condition condition)
        : reader_(begun(std::move(reader))),
          condition_(std::move(condition)),
          count_(countOf(*reader_, dataselection, condition_)),
          lines_(reader_->query(reader_->kept(linesSql(condition_, true)))) {
        condition_.bind(lines_, dataselection);
    }

    uint64_t count() const { return count_; }
    /// The next lines, empty at the end.
    std::string next() {
        constexpr size_t kAtOnce = 5000;
        std::string lines;
        for (size_t i = 0; i < kAtOnce && !ended_; ++i) {
            ended_ = !lines_.step();
            if (!ended_) appendLine(lines_, lines);
        }
        return lines;
    }

  private:
    static std::unique_ptr<Database> begun(std::unique_ptr<Database> reader) {
        reader->script("BEGIN");
        return reader;
    }

    // In this order, since the query refers to both others, and the count starts the snapshot.
    std::unique_ptr<Database> reader_;
    Condition condition_;
    uint64_t count_;
    Query lines_;
    bool ended_ = false;
};

}  // namespace

std::string POStore::find(uint32_t dataselection, const std::string& filter,
                          std::function<std::string()>& more) {
    constexpr uint64_t kAtOnce = 20'000;  // a few megabytes of lines
    Condition condition = conditionOf(filter);
    const uint64_t count = countOf(database_, dataselection, condition);
    if (auto reader = count > kAtOnce ? database_.reader() : nullptr) {
        const auto snapshot =
            std::make_shared<Snapshot>(std::move(reader), dataselection, std::move(condition));
        more = [snapshot] { return snapshot->next(); };
        return head(snapshot->count());
    }
    Query query = database_.query(database_.kept(linesSql(condition, count > kAtOnce)));
    condition.bind(query, dataselection);
    std::string lines;
    uint64_t read = 0;  // not the count: another program may write between it and this query
    for (; query.step(); ++read)
        appendLine(query, lines);
    return head(read) + lines;
}

std::vector<std::string> POStore::statements(const std::string& filter) {
    const Condition condition = conditionOf(filter);
    return {kCount + condition.sql, linesSql(condition, false), linesSql(condition, true)};
}

void POStore::clear() {
    database_.run("DELETE FROM pos");
}

}  // namespace sandbox
