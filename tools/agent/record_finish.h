// The end of a recording on the server: the POs of the image, its record, its retention.
//
// Thread rule: one thread, that of the session.
// Invariants:
//  1. The record is set when the image has exactly the POs that were sent, and those of an earlier
//     recording of its name that are kept.
//  2. A kept PO is of something that is still there and could not be read now. What it calls known
//     was there when its recording was completed. A recording that was never completed has not
//     checked that: a PO of it is kept only when it calls nothing known.
#ifndef TOOLS_AGENT_RECORD_FINISH_H
#define TOOLS_AGENT_RECORD_FINISH_H

#include <cstdint>
#include <set>
#include <string>
#include <unordered_set>

#include "tools/agent/facts.h"
#include "tools/agent/outbox.h"
#include "tools/agent/record.h"
#include "tools/agent/record_report.h"
#include "tools/shared/session.h"

namespace agent {

/// What this run knows of POs that an earlier recording of the name may have left.
struct EarlierPOs {
    bool complete = false;          ///< the image had a record until this run deleted it
    std::set<std::string> skipped;  ///< absolute paths that could not be read, or not wholly
};

/// All that is given must outlive the object.
class RecordFinish {
  public:
    RecordFinish(const RecordOptions& options, tool::Session& session, const Outbox& outbox,
                 const EarlierPOs& earlier, RecordResult& result);

    /// Expires the POs of an earlier recording that were neither replaced nor are kept. Returns the
    /// sum over the POs that the image then has. Throws Failure when others are on the server.
    ImageSum settlePOs();

    /// Sets the record of the image. Where no answer tells whether it is set, the server is asked
    /// for it, unless a signal has come. Throws Failure when the record is not known to be set.
    void setRecord();

    /// Throws Failure when a retention is wanted and not known to be set.
    void setRetention();

  private:
    bool keeps(const Record& record) const;
    void compare(bool first);
    Outcome askForRecord(int64_t when, Outcome otherwise);

    const RecordOptions& options_;
    tool::Session& session_;
    const Outbox& outbox_;
    const EarlierPOs& earlier_;
    RecordResult& result_;
    std::unordered_set<std::string> kept_;  ///< paths
    std::string stale_;                     ///< lines of POs
    ImageSum sum_;                          ///< over the POs that were sent or are kept
};

}  // namespace agent

#endif
