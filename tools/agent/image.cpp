#include "tools/agent/image.h"

#include <unistd.h>

namespace agent {

bool isSame(const ImageName& a, const ImageName& b) {
    return a.client == b.client && a.policy == b.policy && a.image == b.image;
}

std::string thisHost() {
    char name[256] = "";
    return gethostname(name, sizeof name - 1) == 0 && *name != '\0' ? name : "localhost";
}

}  // namespace agent
