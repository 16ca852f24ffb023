// SQLite with prepared statements that are kept. Errors are exceptions.
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

/// One run of a prepared statement, over when it is destroyed.
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

    /// Texts are not copied: they must outlive the query.
    template <typename... Values>
    void bind(const Values&... values) {
        int at = 0;
        (bindOne(++at, values), ...);
    }
    /// The same for one value; places count from 1.
    template <typename Value>
    void bindAt(int at, const Value& value) {
        bindOne(at, value);
    }
    /// To run it again from the start, with what is bound then.
    void reset() { sqlite3_reset(statement_); }
    /// True while there is a row.
    bool step();

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

class Database {
  public:
    /// An empty name: in memory.
    explicit Database(const std::string& file);

    /// `sql` must be a literal or kept(): it is known again by its address. It must not run
    /// already.
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
    /// The same text at the same address, for statements that are put together.
    const char* kept(const std::string& sql) { return texts_.insert(sql).first->c_str(); }
    /// Statements without values, not kept.
    void script(const char* sql);

  private:
    struct Close {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };
    struct Finalize {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    sqlite3_stmt* prepared(const char* sql);

    std::unique_ptr<sqlite3, Close> database_;
    std::set<std::string> texts_;
    std::map<const char*, std::unique_ptr<sqlite3_stmt, Finalize>> statements_;
};

/// Undone when it is destroyed without commit().
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
