// Data selections: numbers that POs and images belong to, each with a tag or none.
#ifndef SANDBOX_STORE_SELECTIONS_H
#define SANDBOX_STORE_SELECTIONS_H

#include <cstdint>
#include <string>

#include "sandbox/store/database.h"

namespace sandbox {

/// As long as no selection was added, every number above 0 is one.
class Selections {
  public:
    explicit Selections(Database& database);

    /// Throws Event when there is no such data selection.
    void need(uint32_t number);
    /// The answer of getHVXTag. Throws Event.
    std::string tag(uint32_t number);
    void add(uint32_t number, const std::string& tag);
    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
