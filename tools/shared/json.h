// Reports as JSON.
//
// JSON is UTF-8, and names of files are bytes. A member whose text is not UTF-8 is therefore
// escaped: each byte that is not of UTF-8, and each backslash, is \xHH, so that the bytes can be
// had back by replacing each \xHH. The object that it is in gets a member "escaped", an array of
// the names of such members. In an array of texts, all are escaped or none.
#ifndef TOOLS_SHARED_JSON_H
#define TOOLS_SHARED_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace tool {

/// Writes it to standard output, as one line for indent -1.
void printJson(nlohmann::ordered_json json, int indent);

/// A field of a server's line that is to be a number: the text as it is where it is none.
nlohmann::ordered_json numberOrText(const std::string& field);

}  // namespace tool

#endif
