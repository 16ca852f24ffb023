#include "tools/agent/options.h"

#include <algorithm>
#include <array>

#include "ks.h"
#include "platform/status.h"
#include "tools/agent/segments.h"
#include "tools/shared/input.h"
#include "tools/shared/messages.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

constexpr size_t kLongestName = 255;
constexpr uint32_t kMostJobs = 256;

/// A name as a field of a PO holds it.
CLI::Validator nameText(bool pattern) {
    const std::string excluded = pattern ? "|%" : "|%*?";
    return {[=](std::string& text) -> std::string {
                if (text.empty() || text.size() > kLongestName) return "has 1 to 255 characters";
                const auto bad = [&](char c) {
                    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f ||
                           excluded.find(c) != std::string::npos;
                };
                const bool good = std::none_of(text.begin(), text.end(), bad);
                return good ? "" : "may hold none of " + excluded + " and no control characters";
            },
            ""};
}

/// "build/" means the same as "build": no path that is matched ends with a slash.
CLI::Validator pattern() {
    return {[](std::string& text) -> std::string {
                while (text.size() > 1 && text.back() == '/')
                    text.pop_back();
                return text.empty() ? "is empty" : "";
            },
            ""};
}

}  // namespace

void addLimits(CLI::App& command, std::vector<std::string>& exclude, bool& oneFileSystem) {
    command
        .add_option("--exclude", exclude,
                    "Leave out names like PATTERN, or paths if it has a slash")
        ->type_name("PATTERN")
        ->allow_extra_args(false)
        ->transform(pattern());
    command.add_flag("-x,--one-file-system", oneFileSystem, "Do not enter other file systems");
}

void addWalkOptions(CLI::App& command, WalkOptions& options, const std::string& verb) {
    command.add_option("PATH", options.paths, "Files and folders to " + verb);
    command.add_option("--files-from", options.listFile,
                       "File of further paths, one a line; - for standard input");
    command.add_flag("-0,--null", options.nullSeparated, "Paths of --files-from end with NUL");
    addLimits(command, options.exclude, options.oneFileSystem);
    command.parse_complete_callback([&] {
        if (options.paths.empty() && options.listFile.empty())
            throw CLI::RequiredError("PATH or --files-from");
    });
}

void readPathList(WalkOptions& options) {
    if (options.listFile.empty()) return;
    const std::string list = tool::readInput(options.listFile);
    const char separator = options.nullSeparated ? '\0' : '\n';
    for (size_t at = 0, end = 0; at < list.size(); at = end + 1) {
        end = std::min(list.find(separator, at), list.size());
        const std::string path = list.substr(at, end - at);
        if (path.find('\0') != std::string::npos) {  // the system would take what is before it
            throw tool::Failure(tool::ExitCode::kUsage, tool::printable(options.listFile) +
                                                            ": a line holds NUL; is -0 missing?");
        }
        if (!path.empty()) options.listed.push_back(path);
    }
}

void addJobs(CLI::App& command, uint32_t& jobs) {
    command.add_option("--jobs", jobs, "Threads that read and hash [one for each core]")
        ->check(CLI::Range(1U, kMostJobs));
}

void addDigest(CLI::App& command, std::string& digest) {
    command
        .add_option("--digest", digest,
                    "Digest that names a segment [that of the configuration, or sha256]")
        ->check(CLI::IsMember(digestNames()));
}

std::string defaultDigest(const std::string& file) {
    const tool::Messages unheard(/*shown=*/false);
    KSConfig config{};
    KSConfigInitWithAgentCfg(&config, file.empty() ? nullptr : file.c_str());
    if (unheard.notRead() != 0) {
        throw tool::Failure(tool::ExitCode::kUsage,
                            std::string("the configuration could not be read as a whole: ") +
                                CRStatusToStringA(unheard.notRead()));
    }
    const bool given = (config.flags & KS_CFG_FP_TYPE) != 0;
    const DigestKind* kind = digestKind(given ? config.fingerprintType : uint32_t{CR_FP_SHA256});
    return kind != nullptr ? kind->name : "sha256";
}

CLI::Validator segmentSizeRange() {
    return CLI::Range(kSmallestSegment, kLargestSegment, "512 B to 1 GiB");
}

CLI::Option* addSegmentSize(CLI::App& command, uint64_t& size) {
    return command.add_option("--segment", size, "Segment size")
        ->transform(CLI::AsSizeValue(false))
        ->check(segmentSizeRange())
        ->default_str("128KiB");
}

void addClient(CLI::App& command, ImageName& name, bool patterns) {
    name.client = thisHost();
    command.add_option("--ds", name.dataselection, "Data selection")->capture_default_str();
    command.add_option("--client", name.client, "Client [this machine]")->check(nameText(patterns));
    command.add_option("--policy", name.policy, "Policy")
        ->check(nameText(patterns))
        ->capture_default_str();
}

CLI::Option* addImageName(CLI::App& command, ImageName& name, bool patterns) {
    addClient(command, name, patterns);
    return command.add_option("--image", name.image, "Name of the image")
        ->check(nameText(patterns));
}

}  // namespace agent
