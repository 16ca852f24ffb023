// Reports as JSON.
#ifndef TOOLS_SHARED_JSON_H
#define TOOLS_SHARED_JSON_H

#include <nlohmann/json.hpp>

namespace tool {

/// Writes it to standard output, as one line for indent -1. Bytes that are not UTF-8, which names
/// of files may have, are replaced; otherwise the library would throw.
void printJson(const nlohmann::ordered_json& json, int indent);

}  // namespace tool

#endif
