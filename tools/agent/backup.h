// kspool-agent backup: files are fingerprinted, the cache tells what is new, the pool's server is
// told of each file by one PO.
#ifndef TOOLS_AGENT_BACKUP_H
#define TOOLS_AGENT_BACKUP_H

#include <cstdint>
#include <string>
#include <vector>

#include "tools/shared/session.h"

namespace agent {

/// What names a backup on the server.
struct ImageName {
    uint32_t dataselection = 1;
    std::string client;
    std::string policy = "default";
    std::string image;
};

/// The name of this machine.
std::string thisHost();

struct BackupOptions {
    pool::SessionOptions session;
    ImageName name;
    std::vector<std::string> paths;
    std::string cacheFile;  ///< empty: the cache is made for this run and forgotten
    uint32_t limit = 512;   ///< of the cache, MiB
    uint64_t segmentSize = uint64_t{128} << 10;
    std::string digest = "sha256";
    uint32_t listSize = 500;  ///< POs that are sent at once
    int64_t retention = 0;    ///< seconds, 0: none is set
    bool oneFileSystem = false;
    bool json = false;
};

struct BackupResult {
    uint64_t files = 0;     ///< read to their ends
    uint64_t recorded = 0;  ///< of these, confirmed by the server
    uint64_t skipped = 0;   ///< files and folders that could not be read, or not wholly
    uint64_t bytes = 0;
    uint64_t segments = 0;
    uint64_t newSegments = 0;
    uint64_t newBytes = 0;
    uint64_t found = 0;  ///< POs of the image on the server, afterwards
    uint64_t cached = 0;
    bool interrupted = false;
    double seconds = 0;
    double cacheSeconds = 0;   ///< of these, in the cache
    double serverSeconds = 0;  ///< and waiting for the server
};

/// Backs up and reports; returns the program's exit code.
int backup(const BackupOptions& options);

void printBackup(const BackupOptions& options, const BackupResult& result);

struct QueryOptions {
    pool::SessionOptions session;
    ImageName name;
    std::string pattern = "*";  ///< of file names
    bool json = false;
};

/// Lists what the server knows of; kExitNothing when that is nothing.
int find(const QueryOptions& options);

/// Expires the POs of an image and deletes its record.
int expire(const QueryOptions& options);

}  // namespace agent

#endif
