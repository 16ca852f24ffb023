// Data selections: the numbers that POs and images belong to, each with or without a tag.
//
// Thread rule: one thread at a time. No state but the table: changes are part of the transaction
// that is open.
#ifndef SANDBOX_STORE_SELECTIONS_H
#define SANDBOX_STORE_SELECTIONS_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "sandbox/store/database.h"

namespace sandbox {

/// While the table is empty, every number above 0 is a data selection without a tag: most tests
/// need no more. After the first add() only the added numbers are.
class Selections {
  public:
    explicit Selections(Database& database);

    /// Throws Event when there is no such data selection.
    void need(uint32_t number);
    /// The answer of getHVXTag. Throws Event.
    std::string tag(uint32_t number);
    /// An empty tag means none. Replaces the tag if the number exists.
    void add(uint32_t number, const std::string& tag);
    /// Visits the added numbers above `after`, ascending, until `visit` returns false.
    void each(uint32_t after, const std::function<bool(uint32_t, std::string_view tag)>& visit);
    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
