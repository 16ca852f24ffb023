// The server's listing of a directory (docs/wire-protocol.md has its format).
#ifndef TOOLS_MB_LISTING_H
#define TOOLS_MB_LISTING_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mb {

struct Entry {
    char type;  ///< d or f
    uint64_t size;
    int64_t mtime;  ///< seconds since 1970
    std::string path;
};

struct Listing {
    std::vector<Entry> entries;
    std::vector<std::string> problems;  ///< one for each line that is not an entry
};

Listing parseListing(std::string_view text);

void printListing(const Listing& listing);
void printListingJson(const Listing& listing);

}  // namespace mb

#endif
