// The names of sections and entries of configuration files, in two tables that are read by offset.
//
// Each table is a record of char arrays. An array holds one name, is as long as the distance to the
// next name, and is padded with NUL. The offsets are part of the binary interface (platform/ini.h).
// The names are our own; the ones at no offset of the library ("database", "transfer", "active")
// stand for names of other components of the pool.
#include <cstddef>

#include "platform/ini.h"

namespace {

struct SectionNames {
    char database[9];
    char fingerprints[13];
    char transfer[117];
    char pool[5];
    char metabase[21];
    char paths[6];
    char product[35];
    char spa[16];
};

struct EntryNames {
    char active[7];
    char agentId[756];
    char label[142];
    char routeTables[72];
    char vendor[103];
    char poolId[242];
    char url[165];
    char type[16];
    char sslKey[1569];
    char reconnectTimeout[20];
};

static_assert(offsetof(SectionNames, fingerprints) == INI_SECTION_FINGERPRINTS);
static_assert(offsetof(SectionNames, pool) == INI_SECTION_POOL);
static_assert(offsetof(SectionNames, metabase) == INI_SECTION_METABASE);
static_assert(offsetof(SectionNames, paths) == INI_SECTION_PATHS);
static_assert(offsetof(SectionNames, product) == INI_SECTION_PRODUCT);
static_assert(offsetof(SectionNames, spa) == INI_SECTION_SPA);

static_assert(offsetof(EntryNames, agentId) == INI_ENTRY_AGENT_ID);
static_assert(offsetof(EntryNames, label) == INI_ENTRY_LABEL);
static_assert(offsetof(EntryNames, routeTables) == INI_ENTRY_ROUTE_TABLES);
static_assert(offsetof(EntryNames, vendor) == INI_ENTRY_VENDOR);
static_assert(offsetof(EntryNames, poolId) == INI_ENTRY_POOL_ID);
static_assert(offsetof(EntryNames, url) == INI_ENTRY_URL);
static_assert(offsetof(EntryNames, type) == INI_ENTRY_TYPE);
static_assert(offsetof(EntryNames, sslKey) == INI_ENTRY_SSL_KEY);
static_assert(offsetof(EntryNames, reconnectTimeout) == INI_ENTRY_RECONNECT_TIMEOUT);

}  // namespace

// platform/ini.h declares the tables as char arrays, but here they are records. A variable has only
// one type, so the records have other C++ names and are bound to the symbols of the tables.
#define TABLE(symbol) __asm__(symbol) __attribute__((visibility("default")))

extern "C" {
extern const SectionNames sectionNames TABLE("_qlx_config_section_string_table_");
extern const EntryNames entryNames TABLE("_qlx_config_entry_string_table_");

const SectionNames sectionNames = {"database", "fingerprints", "transfer", "pool",
                                   "metabase", "paths",        "product",  "spa"};
const EntryNames entryNames = {"active",  "agent-id", "label", "route-tables", "vendor",
                               "pool-id", "url",      "type",  "ssl-key",      "reconnect-timeout"};
}
