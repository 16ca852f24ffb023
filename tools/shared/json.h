// Reports as JSON.
//
// JSON is UTF-8, but names of files are arbitrary bytes. Therefore a member whose text is not UTF-8
// is escaped: each byte that is not part of UTF-8, and each backslash, becomes \xHH, so that the
// original bytes can be restored. The object around it gets a member "escaped", an array of the
// names of such members. In an array of texts, either all texts are escaped or none.
#ifndef TOOLS_SHARED_JSON_H
#define TOOLS_SHARED_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace tool {

/// Writes JSON to standard output; indent -1 means one line.
void printJson(nlohmann::ordered_json json, int indent);

/// A field of a server's line as a number, or as a text if it is not a number.
nlohmann::ordered_json numberOrText(const std::string& field);

}  // namespace tool

#endif
