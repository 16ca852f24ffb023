// What may count as known: segments and files that an image on the server holds.
//
// An image is live while the server has its record and exactly the POs that were recorded. The
// server is asked twice about each image that matters: before anything counts as known because of
// the image, and after all POs that rely on it have been confirmed.
//
// Thread rule: one thread, that of the session.
#ifndef TOOLS_AGENT_CLAIMS_H
#define TOOLS_AGENT_CLAIMS_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tools/agent/facts.h"
#include "tools/agent/query.h"
#include "tools/shared/session.h"

namespace agent {

/// A file that an earlier run read.
struct EarlierReading {
    FileStatus status;
    std::string digest;
    uint64_t segments = 0;
    int64_t readAt = 0;
    uint64_t image = 0;  ///< number of the image for which the file was read
};

class Claims {
  public:
    /// Asks for the records of images. Throws Failure, also when the data selection is unknown.
    /// `facts` must outlive the object; the images in it are the ones that may be live.
    Claims(tool::Session& session, const Facts& facts);

    /// The server has a record of the image, whatever its POs are.
    bool hasRecord(const ImageName& name) const;

    /// False for a number that is not in the facts.
    bool isLive(uint64_t number);

    /// Takes the files of the newest live image of a client and policy.
    void readNewest(const ImageName& name);

    /// The earlier reading of an unchanged file, which need not be read again; NULL if there is
    /// none. Size, times and inode must be the same, and the image for which the file was read must
    /// be live. A file time within two seconds of the reading proves nothing, since the file may
    /// have changed again without a change of the time.
    const EarlierReading* readingOf(const std::string& path, const FileStatus& status);

    /// Fetches records and POs again. Throws Failure if an image of the set is no longer live: data
    /// that counted as known may then be gone. A record alone proves nothing, since another
    /// recording may have taken the name.
    void checkStillThere(const std::set<uint64_t>& numbers);

  private:
    bool compare(const ImageFact& image);
    void list();

    tool::Session& session_;
    const Facts& facts_;
    std::vector<ImageRecord> records_;
    std::map<uint64_t, bool> live_;
    std::unordered_map<std::string, EarlierReading> files_;
    uint64_t newest_ = 0;  ///< number of the image whose files are taken
};

}  // namespace agent

#endif
