// Scenarios: faults that belong together, under a name. A scenario is a JSON file with a
// "description" for people and the "faults", each as an order of Faults has it.
#ifndef SANDBOX_SCENARIOS_H
#define SANDBOX_SCENARIOS_H

#include <nlohmann/json.hpp>
#include <string>

namespace sandbox {

/// {"name": ..., "description": ...} of each scenario that is built in, by name.
nlohmann::ordered_json scenarioList();
/// The file of a scenario that is built in. Throws std::runtime_error, which tells the names.
std::string scenarioText(const std::string& name);
/// Its faults, as an array.
nlohmann::json scenarioFaults(const std::string& name);
/// The faults of a text that is a scenario's file, or an array of faults. Throws
/// std::runtime_error.
nlohmann::json faultsOfText(const std::string& text);

}  // namespace sandbox

#endif
