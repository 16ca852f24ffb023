// The names of sections and entries of configuration files. What an offset means is fixed; the
// names are ours. Offsets between them belong to other components of the pool.
#include <cstddef>

namespace {

// Each field is a name and fills up to the next one.
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

static_assert(offsetof(SectionNames, fingerprints) == 9 && offsetof(SectionNames, pool) == 139);
static_assert(offsetof(SectionNames, metabase) == 144 && offsetof(SectionNames, paths) == 165);
static_assert(offsetof(SectionNames, product) == 171 && offsetof(SectionNames, spa) == 206);
static_assert(offsetof(EntryNames, agentId) == 7 && offsetof(EntryNames, label) == 763);
static_assert(offsetof(EntryNames, routeTables) == 905 && offsetof(EntryNames, vendor) == 977);
static_assert(offsetof(EntryNames, poolId) == 1080 && offsetof(EntryNames, url) == 1322);
static_assert(offsetof(EntryNames, type) == 1487 && offsetof(EntryNames, sslKey) == 1503);
static_assert(offsetof(EntryNames, reconnectTimeout) == 3072);

}  // namespace

extern "C" {
// Programs see them as plain characters, as platform/ini.h declares them.
__attribute__((visibility("default"))) extern const SectionNames _qlx_config_section_string_table_;
__attribute__((visibility("default"))) extern const EntryNames _qlx_config_entry_string_table_;

const SectionNames _qlx_config_section_string_table_ = {
    "database", "fingerprints", "transfer", "pool", "metabase", "paths", "product", "spa"};
const EntryNames _qlx_config_entry_string_table_ = {
    "active",  "agent-id", "label", "route-tables", "vendor",
    "pool-id", "url",      "type",  "ssl-key",      "reconnect-timeout"};
}
