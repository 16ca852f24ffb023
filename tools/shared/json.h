// Reports as JSON.
#ifndef TOOLS_SHARED_JSON_H
#define TOOLS_SHARED_JSON_H

#include <nlohmann/json.hpp>

namespace tool {

/// Writes it to standard output as one line (indent -1) or many. Names of files need not be UTF-8.
void printJson(const nlohmann::ordered_json& json, int indent);

}  // namespace tool

#endif
