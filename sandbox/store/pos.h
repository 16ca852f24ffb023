// POs: records of 26 fields, one row each, identified by data selection, client, policy, image,
// folder and name.
//
// Thread rule: one thread at a time. The source of a long find() may be called while another thread
// uses the store. No state but the table: changes are part of the open transaction, so that a text
// with an invalid line adds none of its POs.
//
// A find is one snapshot: its count and its lines are those of one moment. Up to 20,000 POs are
// read at once. More are read while they are sent, in a read transaction on a connection of its
// own, which does not block writers. A database in memory has only one connection, so its answers
// are made at once; its POs are in memory anyway.
#ifndef SANDBOX_STORE_POS_H
#define SANDBOX_STORE_POS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sandbox/store/database.h"

namespace sandbox {

constexpr size_t kPOFields = 26;

/// Texts are those of a client, unchecked. All functions throw Event and DatabaseError.
class POStore {
  public:
    explicit POStore(Database& database);

    /// The treatment of a PO that exists already.
    enum class OnKnown { kReplace, kKeep };

    /// Returns names, types, and the number of POs that were taken.
    std::string add(uint32_t dataselection, const std::string& text, OnKnown onKnown);
    /// Returns the number of POs that were deleted.
    std::string expire(uint32_t dataselection, const std::string& text);
    /// Returns names, types, count and POs. Of a long answer it returns names, types and count, and
    /// sets `more` to the source of the lines, as in Answer::more.
    std::string find(uint32_t dataselection, const std::string& filter,
                     std::function<std::string()>& more);
    /// The SQL by which a find counts, reads few POs and reads many, for tests of query plans.
    static std::vector<std::string> statements(const std::string& filter);
    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
