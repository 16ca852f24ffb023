#include "sandbox/scenarios.h"

#include <stdexcept>

#include "sandbox/members.h"
#include "sandbox/texts.h"

namespace sandbox {
namespace {

const BuiltInText* find(const std::string& name) {
    for (const BuiltInText* row = kScenarioTexts; !row->name.empty(); ++row) {
        if (row->name == name) return row;
    }
    return nullptr;
}

std::string names() {
    std::string list;
    for (const BuiltInText* row = kScenarioTexts; !row->name.empty(); ++row)
        list.append(list.empty() ? "" : ", ").append(row->name);
    return list;
}

}  // namespace

nlohmann::ordered_json scenarioList() {
    auto list = nlohmann::ordered_json::array();
    for (const BuiltInText* row = kScenarioTexts; !row->name.empty(); ++row) {
        list.push_back({{"name", row->name},
                        {"description", nlohmann::json::parse(row->text).at("description")}});
    }
    return list;
}

std::string scenarioText(const std::string& name) {
    const BuiltInText* row = find(name);
    if (row == nullptr) {
        throw std::runtime_error("no scenario has the name '" + name + "'; there are " + names());
    }
    return std::string(row->text);
}

nlohmann::json scenarioFaults(const std::string& name) {
    return faultsOfText(scenarioText(name));
}

nlohmann::json faultsOfText(const std::string& text) {
    nlohmann::json parsed = parseJson(text);
    if (parsed.is_array()) return parsed;
    if (!parsed.is_object() || !parsed.contains("faults"))
        throw std::runtime_error("neither an array of faults nor a scenario with \"faults\"");
    return parsed.at("faults");
}

}  // namespace sandbox
