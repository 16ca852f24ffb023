// The paths of the route-table files: FOLDER/POOL[_HOST.PORT].recommended and .current.
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "ks/ks_int.h"
#include "platform/net.h"

namespace kspool {
namespace {

/// Makes both paths, with `mark` between the pool's id and the ending. A path that does not fit is
/// truncated.
void nameAfter(KSConfig& config, const char* folder, const char* mark) {
    const unsigned pool = config.storagePoolId;
    [[maybe_unused]] int length = snprintf(config.recommendedRouteTable, kPathSize,
                                           "%s/%u%s.recommended", folder, pool, mark);
    length = snprintf(config.currentRouteTable, kPathSize, "%s/%u%s.current", folder, pool, mark);
    config.flags |= KS_CFG_ROUTE_TABLES;
}

/// Host and port of the SPA server for use in a file name, with a dot for the colon. The scheme is
/// skipped by length: 7 characters for "kbox://", else 8, the length of "https://".
void spaHost(const KSConfig& config, char (&host)[1024]) {
    const char* url = config.spaUrl;
    const size_t scheme = strncmp(url, "kbox://", 7) == 0 ? 7 : 8;
    NetExtractHostAndPort(url + std::min(scheme, strlen(url)), host, sizeof host, 0);
    host[sizeof host - 2] = '\0';
    std::replace(host, host + strlen(host), ':', '.');
}

bool exists(const char* path) {
    struct stat status;
    return stat(path, &status) == 0;
}

}  // namespace

void nameRouteTables(KSConfig& config, const char* folder) {
    nameAfter(config, folder, "");
}

void findRouteTables(KSConfig& config, const char* folder) {
    char mark[1 + 1024] = "_";
    char host[1024] = "";
    spaHost(config, host);
    qlxstrcpy(mark + 1, host, sizeof host);
    nameAfter(config, folder, mark);
    if (exists(config.recommendedRouteTable) && exists(config.currentRouteTable)) return;
    nameRouteTables(config, folder);
}

}  // namespace kspool
