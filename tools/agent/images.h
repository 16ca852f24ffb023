// kspool-agent images: lists the images on the server, with their sizes.
#ifndef TOOLS_AGENT_IMAGES_H
#define TOOLS_AGENT_IMAGES_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/agent/image.h"
#include "tools/agent/po.h"
#include "tools/shared/failure.h"
#include "tools/shared/session.h"

namespace agent {

struct ImageSummary {
    ImageName name;
    bool complete = false;  ///< it has a record
    int64_t time = 0;       ///< of its record; without one: when its newest PO was recorded
    uint64_t files = 0;
    uint64_t bytes = 0;    ///< of the files
    uint64_t entries = 0;  ///< POs: files, folders and links
};

/// Counts an entry of the image.
void count(const FoundPO& found, ImageSummary& image);

/// The images whose client and policy match the patterns, the oldest first. Fetches all their POs,
/// because the server cannot count POs by image.
std::vector<ImageSummary> summarize(tool::Session& session, const ImageName& patterns);

struct ImagesOptions {
    tool::SessionOptions session;
    ImageName name;  ///< its client and policy are patterns, its image is not used
    bool json = false;
};

/// Lists the images; kNothing when there is none.
tool::ExitCode images(const ImagesOptions& options);

}  // namespace agent

#endif
