// POs: lines of 26 fields, by data selection.
#ifndef SANDBOX_STORE_POS_H
#define SANDBOX_STORE_POS_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sandbox/store/database.h"

namespace sandbox {

constexpr size_t kPOFields = 26;

/// Its actions take texts as they come from a client, and throw Event. What changes something is
/// part of the transaction that is under way.
class POStore {
  public:
    explicit POStore(Database& database);

    /// What happens to a PO that is there already.
    enum class OnKnown { Replace, Keep };

    std::string add(uint32_t dataselection, const std::string& text, OnKnown onKnown);
    std::string expire(uint32_t dataselection, const std::string& text);
    /// What is found, or the head of it and in `more` what follows. Writers may come between two
    /// blocks: what they delete is announced, but not sent any more.
    std::string find(uint32_t dataselection, const std::string& filter,
                     std::function<std::string()>& more);
    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
