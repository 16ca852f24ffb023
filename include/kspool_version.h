/* The version of the library. */
#ifndef KSPOOL_VERSION_H
#define KSPOOL_VERSION_H

#include "kspool_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The version of the library that is loaded, as "1.2.3": a constant text. Any thread, any time. */
KSPOOL_API const char* kspoolVersion(void) KSPOOL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif
