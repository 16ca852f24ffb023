// A file of facts of any bytes: refused as something else, or read as a plain reading of its lines
// has it, or as that of a damaged file; and what was read, written and read again is the same.
#include <iterator>
#include <optional>
#include <sstream>

#include "tests/fuzz/fuzz.h"
#include "tools/agent/facts.h"
#include "tools/shared/failure.h"

namespace {

/// How many lines behind the title are about this.
size_t linesAbout(const std::string& text, const std::string& about) {
    std::istringstream lines(text);
    size_t count = 0;
    for (std::string line; std::getline(lines, line);)
        if (agent::plainText(line.substr(0, line.find('|'))) == about) ++count;
    return count;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    static const fuzz::ScratchFile file("kspool-fuzz-facts");
    const std::string text(reinterpret_cast<const char*>(bytes), size);
    const bool isOurs = text.empty() || text.starts_with("kspool-agent facts ");
    file.hold(text);
    std::optional<agent::Facts> facts;
    try {
        facts = agent::loadFacts(file.path());
    } catch (const tool::Failure& failure) {
        MUST(!isOurs && std::string(failure.what()).starts_with(file.path()));
        return 0;
    }
    MUST(isOurs && facts);
    agent::saveFacts(file.path(), agent::Facts{});
    const std::string nothing = file.content();
    agent::saveFacts(file.path(), *facts);
    const std::string saved = file.content();
    // All lines count, or none.
    for (const char* about : {"image", "cache"})
        MUST(saved == nothing || linesAbout(saved, about) == linesAbout(text, about));
    MUST(saved == nothing || text.starts_with("kspool-agent facts 1\n"));
    agent::saveFacts(file.path(), *agent::loadFacts(file.path()));
    MUST(file.content() == saved);
    return 0;
}
