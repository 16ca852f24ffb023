// The names of an image on the server.
#ifndef TOOLS_AGENT_IMAGE_H
#define TOOLS_AGENT_IMAGE_H

#include <cstdint>
#include <string>

namespace agent {

struct ImageName {
    uint32_t dataselection = 1;
    std::string client;
    std::string policy = "default";
    std::string image;
};

/// Whether two names in the same data selection name the same image.
bool isSame(const ImageName& a, const ImageName& b);

/// The name of this machine, which is the client unless the user names another one.
std::string thisHost();

}  // namespace agent

#endif
