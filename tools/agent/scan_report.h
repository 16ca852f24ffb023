// The report of a scan, for people and as JSON.
#ifndef TOOLS_AGENT_SCAN_REPORT_H
#define TOOLS_AGENT_SCAN_REPORT_H

#include "tools/agent/scan.h"
#include "tools/agent/scan_result.h"

namespace agent {

/// Prints on standard output.
void printScan(const ScanOptions& options, const ScanResult& result);

}  // namespace agent

#endif
