// What SQLite is told of the table of POs.
//
// Without statistics SQLite takes a data selection for ten POs, and reads all of them by the
// primary key rather than seek by a name or a folder. These statistics are made up: plans that
// change with the data would turn slow without a warning. They are written at each start, since an
// ANALYZE of somebody else replaces them.
#ifndef SANDBOX_STORE_STATISTICS_H
#define SANDBOX_STORE_STATISTICS_H

namespace sandbox {

/// The numbers of a row are how many POs there are, and how many share the first column of the
/// index, the first two, and so on. `noskipscan` keeps SQLite from stepping through all clients for
/// an image; the sizes of rows, in bytes, keep it from an index where the table itself is read
/// faster. ANALYZE sqlite_schema counts nothing: it makes the table, and loads what is in it.
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
