#include "sandbox/store/database.h"

#include <exception>

namespace sandbox {
namespace {

[[noreturn]] void fail(sqlite3* database) {
    throw DatabaseError(std::string("database: ") + sqlite3_errmsg(database));
}

}  // namespace

bool Query::step() {
    const int code = sqlite3_step(statement_);
    if (code != SQLITE_ROW && code != SQLITE_DONE) fail(database_);
    return code == SQLITE_ROW;
}

std::string_view Query::text(int column) const {
    const unsigned char* text = sqlite3_column_text(statement_, column);
    if (text == nullptr) return {};
    return {reinterpret_cast<const char*>(text),
            static_cast<size_t>(sqlite3_column_bytes(statement_, column))};
}

void Query::check(int code) const {
    if (code != SQLITE_OK) fail(database_);
}

void Query::bindNumber(int at, int64_t number) {
    check(sqlite3_bind_int64(statement_, at, number));
}

void Query::bindText(int at, std::string_view text) {
    // SQLite binds a NULL pointer, which an empty string_view may have, as the value NULL.
    check(sqlite3_bind_text64(statement_, at, text.data() != nullptr ? text.data() : "",
                              text.size(), SQLITE_STATIC, SQLITE_UTF8));
}

Database::Database(const std::string& file)
    : Database(file.empty() ? ":memory:" : file.c_str(),
               SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {}

std::unique_ptr<Database> Database::reader() const {
    const char* file = sqlite3_db_filename(database_.get(), "main");
    if (file == nullptr || *file == '\0') return nullptr;
    return std::unique_ptr<Database>(new Database(file, SQLITE_OPEN_READONLY));
}

Database::Database(const char* file, int flags) {
    sqlite3* opened = nullptr;
    const int code = sqlite3_open_v2(file, &opened, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    database_.reset(opened);
    if (code != SQLITE_OK) fail(opened);
    // Another program may hold the lock for a moment.
    sqlite3_busy_timeout(opened, 2000);
}

sqlite3_stmt* Database::prepared(const char* sql) {
    auto& kept = statements_[sql];
    if (kept == nullptr) {
        sqlite3_stmt* made = nullptr;
        if (sqlite3_prepare_v3(database_.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &made,
                               nullptr) != SQLITE_OK) {
            fail(database_.get());
        }
        kept.reset(made);
    }
    return kept.get();
}

void Database::script(const char* sql) {
    if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(database_.get());
}

void Transaction::commit() {
    database_.run("COMMIT");
    open_ = false;
}

Transaction::~Transaction() {
    if (!open_) return;
    try {
        database_.run("ROLLBACK");
    } catch (const std::exception&) {
        // Some failures (a full disk, lack of memory) make SQLite roll back by itself.
        open_ = false;
    }
}

}  // namespace sandbox
