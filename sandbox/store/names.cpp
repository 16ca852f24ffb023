#include "sandbox/store/names.h"

#include "sandbox/store/event.h"
#include "sandbox/store/path.h"

namespace sandbox {
namespace {

constexpr char kAfterSlash = '/' + 1;

std::string startBelow(const std::string& path) {
    return path + '/';
}

std::string endBelow(const std::string& path) {
    return path + kAfterSlash;
}

std::string line(char kind, int64_t size, int64_t mtime, std::string_view name) {
    std::string text(1, kind);
    text.append(" ").append(std::to_string(size)).append(" ").append(std::to_string(mtime));
    text.append(" ").append(name).append("\n");
    return text;
}

}  // namespace

NameSpace::NameSpace(Database& database) : database_(database) {
    database_.script(
        "CREATE TABLE IF NOT EXISTS entries (path TEXT PRIMARY KEY, kind TEXT NOT NULL,"
        " size INTEGER NOT NULL, mtime INTEGER NOT NULL) WITHOUT ROWID");
}

std::optional<NameSpace::Entry> NameSpace::find(const std::string& path) {
    if (path.empty()) return Entry{'d', 0, 0};
    Query row = database_.query("SELECT kind, size, mtime FROM entries WHERE path = ?", path);
    if (!row.step()) return std::nullopt;
    return Entry{row.text(0).front(), row.number(1), row.number(2)};
}

/// Throws the event that tells why a path does not exist: a parent is a file, or there is nothing.
void NameSpace::missing(const std::string& path, const std::string& shown) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string parent = path.substr(0, slash);
        const auto entry = find(parent);
        if (!entry) break;
        if (entry->kind != 'd') throw Event{POOL_EVENT_NOT_DIRECTORY, "not a directory: " + parent};
    }
    throw Event{POOL_EVENT_NO_ENTRY, "no such file or directory: " + shown};
}

NameSpace::Entry NameSpace::need(const std::string& path, const std::string& shown) {
    const auto entry = find(path);
    if (!entry) missing(path, shown);
    return *entry;
}

/// Throws unless nothing is at the path, and its parent is a directory.
void NameSpace::needFree(const std::string& path, const std::string& shown) {
    if (find(path)) throw Event{POOL_EVENT_ENTRY_EXISTS, "already exists: " + shown};
    const std::string parent = parentOf(path);
    if (need(parent, parent).kind != 'd')
        throw Event{POOL_EVENT_NOT_DIRECTORY, "not a directory: " + parent};
}

bool NameSpace::isEmpty(const std::string& path) {
    return !database_
                .query("SELECT 1 FROM entries WHERE path > ? AND path < ? LIMIT 1",
                       startBelow(path), endBelow(path))
                .step();
}

void NameSpace::mkdir(const std::string& text, int64_t now) {
    const std::string path = normalPath(text);
    needFree(path, shownPath(path));
    database_.run("INSERT INTO entries VALUES (?, 'd', 0, ?)", path, now);
}

void NameSpace::prepareTransfer(const std::string& source, const std::string& destination,
                                const char* verb) {
    const std::string shown = shownPath(source);
    need(source, shown);
    if (destination.starts_with(startBelow(source)))
        throw Event{POOL_EVENT_INTO_ITSELF, shown + " cannot be " + verb + " into itself"};
    needFree(destination, shownPath(destination));
}

void NameSpace::copy(const std::string& from, const std::string& to, bool recursive) {
    const std::string source = normalPath(from);
    const std::string destination = normalPath(to);
    prepareTransfer(source, destination, "copied");
    if (!recursive && !isEmpty(source)) {
        throw Event{POOL_EVENT_NEEDS_RECURSIVE,
                    "is a directory that is not empty, needs recursive: " + shownPath(source)};
    }
    static constexpr char kCopy[] =
        "INSERT INTO entries SELECT ?2 || substr(path, length(?1) + 1), kind, size, mtime"
        " FROM entries WHERE path = ?1 OR (path > ?3 AND path < ?4)";
    database_.run(kCopy, source, destination, startBelow(source), endBelow(source));
}

void NameSpace::move(const std::string& from, const std::string& to) {
    const std::string source = normalPath(from);
    const std::string destination = normalPath(to);
    if (source.empty()) throw Event{POOL_EVENT_INTO_ITSELF, "the root cannot be moved"};
    prepareTransfer(source, destination, "moved");
    static constexpr char kMove[] =
        "UPDATE entries SET path = ?2 || substr(path, length(?1) + 1)"
        " WHERE path = ?1 OR (path > ?3 AND path < ?4)";
    database_.run(kMove, source, destination, startBelow(source), endBelow(source));
}

void NameSpace::remove(const std::string& text, bool recursive) {
    const std::string path = normalPath(text);
    if (path.empty()) throw Event{POOL_EVENT_INTO_ITSELF, "the root cannot be deleted"};
    need(path, shownPath(path));
    if (!recursive && !isEmpty(path))
        throw Event{POOL_EVENT_NOT_EMPTY, "directory not empty: " + shownPath(path)};
    database_.run("DELETE FROM entries WHERE path = ?1 OR (path > ?2 AND path < ?3)", path,
                  startBelow(path), endBelow(path));
}

std::string NameSpace::list(const std::string& text, bool recursive) {
    const std::string path = normalPath(text);
    const Entry entry = need(path, shownPath(path));
    if (entry.kind != 'd') {
        const std::string name = path.substr(path.rfind('/') + 1);
        return line(entry.kind, entry.size, entry.mtime, name);
    }
    if (recursive) return listBelow(path);
    std::string listing;
    eachChild(path, startBelow(path),
              [&](char kind, int64_t size, int64_t mtime, std::string_view name) {
                  listing += line(kind, size, mtime, name);
                  return true;
              });
    return listing;
}

std::string NameSpace::listBelow(const std::string& path) {
    const std::string first = startBelow(path);
    const std::string end = endBelow(path);
    std::string listing;
    Query row = database_.query(
        "SELECT path, kind, size, mtime FROM entries WHERE path > ? AND path < ? ORDER BY path",
        first, end);
    while (row.step()) {
        listing += line(row.text(1).front(), row.number(2), row.number(3),
                        row.text(0).substr(first.size()));
    }
    return listing;
}

/// A loose index scan (skip scan): at the first row below a child, the scan seeks to the end of
/// that child's range. The cost is one seek per child, however many rows there are below it; a
/// plain scan would read all of these rows.
void NameSpace::eachChild(const std::string& path, const std::string& from, const Visit& visit) {
    const size_t prefix = startBelow(path).size();
    const std::string end = endBelow(path);
    std::string next = from;
    Query row = database_.query(
        "SELECT path, kind, size, mtime FROM entries WHERE path >= ? AND path < ? ORDER BY path",
        next, end);
    bool more = true;
    while (more && row.step()) {
        const std::string_view name = row.text(0).substr(prefix);
        const size_t slash = name.find('/');
        if (slash == std::string_view::npos) {
            more = visit(row.text(1).front(), row.number(2), row.number(3), name);
            continue;
        }
        std::string behind = endBelow(startBelow(path) + std::string(name.substr(0, slash)));
        row.reset();
        next.swap(behind);
        row.bind(next, end);
    }
}

void NameSpace::each(const std::string& text, const std::string& after, const Visit& visit) {
    const std::string path = normalPath(text);
    if (need(path, shownPath(path)).kind != 'd')
        throw Event{POOL_EVENT_NOT_DIRECTORY, "not a directory: " + shownPath(path)};
    eachChild(path, startBelow(path) + after,
              [&](char kind, int64_t size, int64_t mtime, std::string_view name) {
                  return name == after || visit(kind, size, mtime, name);
              });
}

void NameSpace::place(const std::string& text, char kind, int64_t size, int64_t mtime,
                      int64_t now) {
    const std::string path = normalPath(text);
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string parent = path.substr(0, slash);
        const auto there = find(parent);
        if (!there) database_.run("INSERT INTO entries VALUES (?, 'd', 0, ?)", parent, now);
        if (there && there->kind != 'd')
            throw Event{POOL_EVENT_NOT_DIRECTORY, "not a directory: " + parent};
    }
    const auto there = find(path);
    if (there && there->kind != kind)
        throw Event{POOL_EVENT_ENTRY_EXISTS,
                    "already exists as something else: " + shownPath(path)};
    database_.run("INSERT OR REPLACE INTO entries VALUES (?, ?, ?, ?)", path,
                  std::string_view(&kind, 1), size, mtime);
}

void NameSpace::clear() {
    database_.run("DELETE FROM entries");
}

}  // namespace sandbox
