// What a load did, for people and as JSON.
#ifndef BENCH_POOL_REPORT_H
#define BENCH_POOL_REPORT_H

#include <string>

#include "bench/pool_load.h"

namespace pool {

/// Prints tables to standard output.
void print(const Settings& settings, const Result& result);

/// Throws std::runtime_error when the file cannot be written.
void writeJson(const std::string& file, const Settings& settings, const Result& result);

}  // namespace pool

#endif
