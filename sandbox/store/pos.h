// POs: records of 26 fields, one row each, known by data selection, client, policy, image, folder
// and name.
//
// Thread rule: one thread at a time, also for the blocks of a long find(). No state but the table:
// changes are part of the transaction that is open, so that a text with one invalid line leaves no
// PO of the lines before.
//
// A find of up to 20,000 POs is one snapshot: no other request comes between count and lines. A
// longer answer is not. Its head tells the count at that moment; the lines follow in pages of
// 5,000, and changes may come between two pages. A PO that is deleted meanwhile was counted but is
// not sent; one that is added behind the last line sent is sent but was not counted. One snapshot
// would need either the whole answer in memory, or a read transaction that stays open for as long
// as the client reads.
#ifndef SANDBOX_STORE_POS_H
#define SANDBOX_STORE_POS_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

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
    /// sets `more` to the source of the pages, which refers to the database.
    std::string find(uint32_t dataselection, const std::string& filter,
                     std::function<std::string()>& more);
    void clear();

  private:
    Database& database_;
};

}  // namespace sandbox

#endif
