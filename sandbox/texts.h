// Files that are embedded in the program; CMakeLists.txt lists them.
#ifndef SANDBOX_TEXTS_H
#define SANDBOX_TEXTS_H

#include <string_view>

namespace sandbox {

struct BuiltInText {
    std::string_view name;  ///< of the file, without folder and ending
    std::string_view text;
};

/// The files of scenarios/; ends with a row without a name.
extern const BuiltInText kScenarioTexts[];
/// http/page.html
extern const std::string_view kPageText;

}  // namespace sandbox

#endif
