// The name space: directories and files by their paths, one row each.
//
// Thread rule: one thread at a time. No state but the table: changes are part of the transaction
// that is open.
//
// Invariants:
//  1. A path in the table starts with a slash and ends without one. The root is the empty text, and
//     always exists; it has no row.
//  2. The parent of each row is the root or the row of a directory. Copies and moves therefore need
//     to check one parent, and nothing can lie below a path that does not exist.
//  3. Paths are compared as bytes (SQLite's BINARY). The rows below a directory P are those between
//     P + '/' and P + '0', the character after the slash: one range of the primary key. They do not
//     follow P's own row at once: names such as "P.b" sort in between.
#ifndef SANDBOX_STORE_NAMES_H
#define SANDBOX_STORE_NAMES_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "sandbox/store/database.h"

namespace sandbox {

/// Paths are those of a client, unchecked. All functions throw Event and DatabaseError.
class NameSpace {
  public:
    explicit NameSpace(Database& database);

    // Actions of the wire protocol.

    void mkdir(const std::string& path, int64_t now);
    void copy(const std::string& source, const std::string& destination, bool recursive);
    void move(const std::string& source, const std::string& destination);
    void remove(const std::string& path, bool recursive);
    std::string list(const std::string& path, bool recursive);

    /// Visits the entries of a directory after a name, ordered by bytes of the name, until `visit`
    /// returns false.
    using Visit =
        std::function<bool(char kind, int64_t size, int64_t mtime, std::string_view name)>;
    void each(const std::string& path, const std::string& after, const Visit& visit);

    // To prepare a pool.

    /// Creates a file ('f') or directory ('d') at a path, and missing parents with the time `now`.
    /// If one of the same kind exists, replaces its size and time.
    void place(const std::string& path, char kind, int64_t size, int64_t mtime, int64_t now);
    void clear();

  private:
    struct Entry {
        char kind;  ///< 'd' or 'f'
        int64_t size;
        int64_t mtime;
    };
    // All paths below are normal ones; `shown` is the path for a description.

    std::optional<Entry> find(const std::string& path);
    Entry need(const std::string& path, const std::string& shown);
    [[noreturn]] void missing(const std::string& path, const std::string& shown);
    void needFree(const std::string& path, const std::string& shown);
    bool isEmpty(const std::string& path);
    /// REQUIRES: `from` is not before the path's first entry.
    void eachChild(const std::string& path, const std::string& from, const Visit& visit);
    std::string listBelow(const std::string& path);
    /// The checks that copy and move have in common.
    void prepareTransfer(const std::string& source, const std::string& destination,
                         const char* verb);

    Database& database_;
};

}  // namespace sandbox

#endif
