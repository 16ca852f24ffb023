// SQLite with exceptions, and with prepared statements that are compiled once.
//
// Thread rule: one thread at a time. The connection is opened without SQLite's own mutex.
//
// Invariants:
//  1. A statement is found by the address of its SQL text, which costs a few pointer comparisons;
//     compiling the text again would cost as much as a short query. So an address must mean the
//     same text for the life of the database. Literals and kept() guarantee that. A temporary does
//     not: its address may later be that of another text, and the wrong statement would run.
//  2. A statement has at most one Query at a time. A second one could not bind its values, and
//     would end the run of the first.
//  3. Without a Query, a statement is reset and has no bound values. Otherwise a read would keep
//     its snapshot open, and bound texts would dangle.
//  4. Statements are finalized before the database is closed.
#ifndef SANDBOX_STORE_DATABASE_H
#define SANDBOX_STORE_DATABASE_H

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace sandbox {

class DatabaseError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// One run of a prepared statement, ended by the destructor.
class Query {
  public:
    template <typename... Values>
    Query(sqlite3* database, sqlite3_stmt* statement, const Values&... values)
        : database_(database), statement_(statement) {
        bind(values...);
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;
    ~Query() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }

    /// Binds all values, in order. Texts are not copied: they must outlive the query.
    template <typename... Values>
    void bind(const Values&... values) {
        int at = 0;
        (bindOne(++at, values), ...);
    }
    /// Binds one value; places count from 1.
    template <typename Value>
    void bindAt(int at, const Value& value) {
        bindOne(at, value);
    }
    /// Ends the run; the next step() starts a new one. Values stay bound, and may be bound again.
    void reset() { sqlite3_reset(statement_); }
    /// Goes to the next row; false at the end. Throws DatabaseError.
    bool step();

    /// A column of the row, valid until the next step(). NULL is an empty text.
    std::string_view text(int column) const;
    int64_t number(int column) const { return sqlite3_column_int64(statement_, column); }

  private:
    template <typename Value>
    void bindOne(int at, const Value& value) {
        if constexpr (std::is_integral_v<Value>) {
            bindNumber(at, static_cast<int64_t>(value));
        } else {
            bindText(at, value);
        }
    }
    void bindNumber(int at, int64_t number);
    void bindText(int at, std::string_view text);
    void check(int code) const;

    sqlite3* database_;
    sqlite3_stmt* statement_;
};

/// A connection. All functions throw DatabaseError.
class Database {
  public:
    /// An empty name opens a database in memory.
    explicit Database(const std::string& file);

    /// REQUIRES of query() and run(): `sql` is a literal or from kept() (invariant 1), and no other
    /// Query of it exists (invariant 2).
    template <typename... Values>
    Query query(const char* sql, const Values&... values) {
        return Query(database_.get(), prepared(sql), values...);
    }
    template <typename... Values>
    void run(const char* sql, const Values&... values) {
        Query made(database_.get(), prepared(sql), values...);
        while (made.step()) {
        }
    }
    /// A copy that lives as long as the database; equal texts have the same address. For SQL that
    /// is composed at run time. Texts are never freed, so values must be bound and not pasted in.
    const char* kept(const std::string& sql) { return texts_.insert(sql).first->c_str(); }
    /// A second, read-only connection to the same file, usable while others write; NULL for a
    /// database in memory.
    std::unique_ptr<Database> reader() const;
    /// Runs statements without values; they are compiled for this call only.
    void script(const char* sql);

  private:
    struct Close {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    Database(const char* file, int flags);
    sqlite3_stmt* prepared(const char* sql);

    // In this order, so that the statements are destroyed first.
    std::unique_ptr<sqlite3, Close> database_;
    std::set<std::string> texts_;  // a set's elements never move
    std::map<const char*, std::unique_ptr<sqlite3_stmt, Finalize>> statements_;
};

/// Rolled back by the destructor unless commit() succeeded. IMMEDIATE takes the write lock at once:
/// otherwise a transaction that reads first and writes later fails if another program, such as the
/// sqlite3 shell, has written in between.
class Transaction {
  public:
    explicit Transaction(Database& database) : database_(database) {
        database_.run("BEGIN IMMEDIATE");
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();

    void commit();

  private:
    Database& database_;
    bool open_ = true;
};

}  // namespace sandbox

#endif
