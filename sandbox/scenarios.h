// Scenarios: named groups of faults. A scenario is a JSON file with a "description" for people and
// "faults", an array as Faults::add() takes it.
#ifndef SANDBOX_SCENARIOS_H
#define SANDBOX_SCENARIOS_H

#include <nlohmann/json.hpp>
#include <string>

namespace sandbox {

/// {"name": ..., "description": ...} of each built-in scenario, sorted by name.
nlohmann::ordered_json scenarioList();
/// The file of a built-in scenario. Throws std::runtime_error that lists the names.
std::string scenarioText(const std::string& name);
/// Its faults, as an array.
nlohmann::json scenarioFaults(const std::string& name);
/// The faults of a text that is a scenario's file, or an array of faults. Throws
/// std::runtime_error.
nlohmann::json faultsOfText(const std::string& text);

}  // namespace sandbox

#endif
