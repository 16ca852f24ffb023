// POs: records of 26 fields, one row each, known by data selection, client, policy, image, folder
// and name.
//
// Thread rule: one thread at a time. The source of a long find() may be called beside the store. No
// state but the table: changes are part of the transaction that is open, so that a text with one
// invalid line leaves no PO of the lines before.
//
// A find is one snapshot: its count and its lines are those of one moment. Up to 20,000 POs are
// read at once. More are read while they are sent, from a read transaction on a connection of its
// own, which writers do not wait for. A database in memory has one connection, so there the whole
// answer is made at once; its POs are in memory anyway.
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
    /// The SQL with which a find counts, reads few POs and reads many, for tests of SQLite's plans.
    static std::vector<std::string> statements(const std::string& filter);
    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
