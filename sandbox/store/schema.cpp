#include "sandbox/store/schema.h"

#include <fcntl.h>

#include <cstdint>
#include <iterator>

#include "common/owned.h"

namespace sandbox {
namespace {

/// The SQL that upgrades version N to N + 1, at index N. Steps are only ever added.
constexpr const char* kSteps[] = {
    // Event codes moved to 10001 and above. Refusals that were stored before have old codes, which
    // clients would take for other statuses. If such a request is resent, it is handled as a new
    // one.
    "DELETE FROM answers WHERE status <> 200",
};
constexpr int64_t kCurrent = std::size(kSteps);

int64_t versionOf(Database& database) {
    Query query = database.query("PRAGMA user_version");
    return query.step() ? query.number(0) : 0;
}

/// Whether a database has a pool's tables, or none: then it becomes a pool's. All tables of a pool
/// are made in one transaction, so that a few tell.
bool isPool(Database& database) {
    Query query = database.query(
        "SELECT count(*) = 0 OR total(type = 'table' AND name IN ('answers', 'entries', 'pos')) = 3"
        " FROM sqlite_schema");
    return query.step() && query.number(0) != 0;
}

/// SQLite would let every user read a new file, which tells what the machines of a pool hold. Its
/// log gets the mode of the database. A failure is left to SQLite, which reports it.
void makeForItsUser(const std::string& file) {
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    const kspool::Descriptor made(open(file.c_str(), flags, 0600));
}

}  // namespace

Database openPool(const std::string& file, bool sync) {
    if (!file.empty()) makeForItsUser(file);
    Database database(file);
    if (file.empty()) return database;
    if (!isPool(database))
        throw DatabaseError(file + ": not a pool's database: it has other tables");
    const int64_t version = versionOf(database);
    if (version < 0 || version > kCurrent) {
        throw DatabaseError(file + ": of a newer kspool-sandbox: its version is " +
                            std::to_string(version) + ", this program knows up to " +
                            std::to_string(kCurrent));
    }
    // With a write-ahead log other programs can read the database while the server writes, and a
    // commit is an append. FULL syncs the log at each commit, NORMAL only at a checkpoint: then a
    // server that is killed loses no confirmed change (the bytes are in the system's page cache),
    // but a power loss may lose the last ones.
    database.script("PRAGMA journal_mode = WAL");
    database.script(sync ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
    return database;
}

void Upgrade::finish() {
    for (int64_t version = versionOf(database_); version < kCurrent; ++version)
        database_.script(kSteps[version]);
    database_.script(("PRAGMA user_version = " + std::to_string(kCurrent)).c_str());
    transaction_->commit();
    transaction_.reset();
}

}  // namespace sandbox
