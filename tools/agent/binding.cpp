#include "tools/agent/binding.h"

#include <optional>
#include <string>

#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

/// Why a cache may not be used for a binding; empty when it may.
std::string difference(const Binding& kept, const Binding& wanted) {
    const auto cutText = [](const Cut& cut) {
        return cut.digest + " segments of " + tool::humanBytes(cut.segmentSize);
    };
    const struct {
        const char* what;
        std::string kept, wanted;
    } kRows[] = {
        {"server", kept.server, wanted.server},
        {"pool", std::to_string(kept.pool), std::to_string(wanted.pool)},
        {"data selection", std::to_string(kept.dataselection),
         std::to_string(wanted.dataselection)},
        {"", cutText(kept.cut), cutText(wanted.cut)},
    };
    for (const auto& row : kRows) {
        if (row.kept == row.wanted) continue;
        const std::string what = *row.what != '\0' ? std::string(row.what) + " " : "";
        return "is bound to " + what + row.kept + ", not " + row.wanted;
    }
    return {};
}

}  // namespace

Facts factsFor(const HeldFile& file, const Binding& binding, bool rebind) {
    Facts fresh;
    fresh.binding = binding;
    if (file.path().empty()) return fresh;
    const std::optional<Facts> kept = loadFacts(factsPath(file.path()));
    if (!kept) return fresh;
    if (kept->binding.server.empty()) {
        tool::complain("note: " + factsPath(file.path()) + " is damaged, or of another version");
        return fresh;
    }
    const std::string why = difference(kept->binding, binding);
    if (why.empty() && !rebind) return *kept;
    if (rebind) return fresh;
    throw tool::Failure(tool::ExitCode::kUsage, file.path() + " " + why + "; --rebind starts anew");
}

}  // namespace agent
