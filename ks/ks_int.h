// The record of an agent configuration, and what its files share.
//
// Thread rule: one thread at a time per record. The files have no state: the record is the
// caller's. Invariants of a record:
//  1. Every text is NUL-terminated within its field.
//  2. A set flag means that its field was set. The fingerprint type may also be set without its
//     flag, by its option. Fields without a flag have defaults.
//  3. An empty `applicationName` marks a record whose file could not be found or read; its flag is
//     set nevertheless.
//  4. The record holds no pointer, so it may be copied as bytes; each copy may hold the password.
#ifndef KS_KS_INT_H
#define KS_KS_INT_H

#include <cstddef>

#include "common/diagnostics.h"
#include "ks.h"

namespace kspool {

/// The source file that the files of this folder report to the status library.
inline constexpr char kKsSource[] = "../ks";

inline constexpr size_t kPathSize = sizeof KSConfig::configFile;

// Programs allocate the record themselves, so its layout is part of the binary interface.
static_assert(offsetof(KSConfig, fingerprintType) == 12 && offsetof(KSConfig, doType) == 13);
static_assert(offsetof(KSConfig, vendorName) == 14 && offsetof(KSConfig, programLabel) == 270);
static_assert(offsetof(KSConfig, applicationName) == 526 && offsetof(KSConfig, login) == 782);
static_assert(offsetof(KSConfig, password) == 1038 && offsetof(KSConfig, spaUrl) == 1294);
static_assert(offsetof(KSConfig, mbsUrl) == 2318 && offsetof(KSConfig, configFile) == 3342);
static_assert(offsetof(KSConfig, recommendedRouteTable) == 7438);
static_assert(offsetof(KSConfig, currentRouteTable) == 11534);
static_assert(offsetof(KSConfig, sslKeyLocation) == 15630);
static_assert(offsetof(KSConfig, reconnectTimeout) == 19728 && sizeof(KSConfig) == 19736);

/// Reads the directives of the file at `path` into a record that initialisation has zeroed.
void _configLoad(KSConfig* config, const char* path);

/// Names both route tables after the storage pool alone.
void nameRouteTables(KSConfig& config, const char* folder);

/// Names both route tables after the storage pool and the SPA server if both files exist, else
/// after the pool alone.
void findRouteTables(KSConfig& config, const char* folder);

}  // namespace kspool

#endif
