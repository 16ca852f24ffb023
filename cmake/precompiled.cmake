# With KSPOOL_PRECOMPILE the headers that programs read most are compiled once for each target, with the
# templates that they need: clang then compiles a source in half to two thirds of the time, which counts
# between two edits. gcc gains nothing from it.
option(KSPOOL_PRECOMPILE "Compile the headers of other libraries once for each target" OFF)

if(KSPOOL_PRECOMPILE AND KSPOOL_BUILD_TOOLS)
  foreach(target kspool-agent kspool-cache kspool-mb tools_shared)
    target_precompile_headers(${target} PRIVATE <CLI/CLI.hpp> <nlohmann/json.hpp>)
  endforeach()
endif()
if(KSPOOL_PRECOMPILE AND KSPOOL_BUILD_SANDBOX)
  target_precompile_headers(kspool-sandbox PRIVATE <CLI/CLI.hpp> <nlohmann/json.hpp>)
  target_precompile_headers(kspool_sandbox PRIVATE <nlohmann/json.hpp> <functional> <map> <optional> <set>)
endif()
