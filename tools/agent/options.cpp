#include "tools/agent/options.h"

#include <algorithm>
#include <string>

namespace agent {
namespace {

constexpr uint64_t kSmallestSegment = 512;
constexpr uint64_t kLargestSegment = uint64_t{1} << 30;
constexpr size_t kLongestName = 255;

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

}  // namespace

void addSegmentSize(CLI::App& command, uint64_t& size) {
    command.add_option("--segment", size, "Segment size")
        ->transform(CLI::AsSizeValue(false))
        ->check(CLI::Range(kSmallestSegment, kLargestSegment, "512 B to 1 GiB"))
        ->default_str("128KiB");
}

CLI::Option* addImageName(CLI::App& command, ImageName& name, bool patterns) {
    name.client = thisHost();
    command.add_option("--ds", name.dataselection, "Data selection")->capture_default_str();
    command.add_option("--client", name.client, "Client [this machine]")->check(nameText(patterns));
    command.add_option("--policy", name.policy, "Policy")
        ->check(nameText(patterns))
        ->capture_default_str();
    return command.add_option("--image", name.image, "Name of the image")
        ->check(nameText(patterns));
}

}  // namespace agent
