#include "kspool_version.h"

const char* kspoolVersion() noexcept {
    return KSPOOL_VERSION;
}
