// Fixed query-planner statistics for the table of POs.
//
// Without statistics SQLite assumes ten POs per data selection, and reads all of them by the
// primary key instead of seeking by a name or a folder. These statistics are made up, on purpose:
// plans that changed with the data could become slow without warning. They are written at each
// start, since an ANALYZE by another program would replace them.
#ifndef SANDBOX_STORE_STATISTICS_H
#define SANDBOX_STORE_STATISTICS_H

namespace sandbox {

/// The numbers in a row are the number of POs, and how many POs share the first column of the
/// index, the first two, and so on. `noskipscan` keeps SQLite from a skip scan over all clients to
/// find an image; the row sizes, in bytes, keep it from using an index where reading the table is
/// faster. ANALYZE sqlite_schema counts nothing: it creates the statistics table, and loads its
/// contents.
constexpr char kStatistics[] =
    "ANALYZE sqlite_schema;"
    "DELETE FROM sqlite_stat1 WHERE tbl = 'pos';"
    "INSERT INTO sqlite_stat1 (tbl, idx, stat) VALUES"
    " ('pos', 'pos', '1000000 1000000 10000 10000 1000 20 1 noskipscan sz=250'),"
    " ('pos', 'pos_order', '1000000 1000000 100 1 1 1 1 noskipscan sz=120'),"
    " ('pos', 'pos_name', '1000000 1000000 10 noskipscan sz=120');"
    "ANALYZE sqlite_schema";

}  // namespace sandbox

#endif
