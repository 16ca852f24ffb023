// The version of the tables in a pool's database.
//
// A pool's database names the version that wrote it (PRAGMA user_version). One of a newer version
// is refused, untouched: this program does not know what the tables mean. So is a database with the
// tables of another program. One of an older version becomes a current one, in one transaction with
// the tables that are made: a server that is killed meanwhile leaves the old version or the new
// one.
#ifndef SANDBOX_STORE_SCHEMA_H
#define SANDBOX_STORE_SCHEMA_H

#include <optional>
#include <string>

#include "sandbox/store/database.h"

namespace sandbox {

/// Opens a pool's database; an empty name opens one in memory. `sync`: a commit returns only when
/// it is on disk. Throws DatabaseError.
Database openPool(const std::string& file, bool sync);

/// The transaction in which tables are made and changed. REQUIRES: constructed before the stores,
/// which make their tables.
class Upgrade {
  public:
    explicit Upgrade(Database& database) : database_(database), transaction_(database) {}
    /// Brings the tables to the current version. Must be called once, after all stores are
    /// constructed.
    void finish();

  private:
    Database& database_;
    std::optional<Transaction> transaction_;
};

}  // namespace sandbox

#endif
