// The report of a scan as an HTML page.
#ifndef TOOLS_AGENT_SCAN_HTML_H
#define TOOLS_AGENT_SCAN_HTML_H

#include <string>
#include <string_view>

#include "tools/agent/scan.h"
#include "tools/agent/scan_findings.h"
#include "tools/agent/scan_result.h"

namespace agent {

/// The text of scan_page.html, with {{name}} as placeholders.
extern const std::string_view kScanPage;

std::string scanPage(const ScanOptions& options, const ScanResult& result,
                     const Findings& findings);

}  // namespace agent

#endif
