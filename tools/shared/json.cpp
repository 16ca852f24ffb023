#include "tools/shared/json.h"

#include <cstdio>

namespace tool {

void printJson(const nlohmann::ordered_json& json, int indent) {
    using Json = nlohmann::ordered_json;
    printf("%s\n", json.dump(indent, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace tool
