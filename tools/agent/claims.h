// What may be called known: segments and files that an image on the server holds.
//
// An image is live while the server has its record, and as many POs as were recorded, which are
// those that were recorded. The server is asked twice for each image that matters: before anything
// is called known by it, and when all POs that rely on it have been confirmed.
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

    /// The reading that makes another one unnecessary: size, times and inode are as they were then,
    /// and the image for which the file was read is live. A time within two seconds of the moment
    /// of reading proves nothing, since the file may have changed again at the same time.
    const EarlierReading* readingOf(const std::string& path, const FileStatus& status);

    /// Asks again for the records and POs. Throws Failure when an image of the set is not live any
    /// more: what was called known since may be gone too. A record proves nothing by itself, since
    /// another recording may have taken the name.
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
