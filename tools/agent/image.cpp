#include "tools/agent/image.h"

#include <unistd.h>

namespace agent {

std::string thisHost() {
    char name[256] = "";
    return gethostname(name, sizeof name - 1) == 0 && *name != '\0' ? name : "localhost";
}

}  // namespace agent
