#include "tools/agent/held_file.h"

#include <chrono>
#include <filesystem>
#include <thread>
#include <utility>

#include "platform/status.h"
#include "tools/shared/failure.h"
#include "tools/shared/text.h"

namespace agent {
namespace {

using tool::ExitCode;
using tool::Failure;

constexpr std::chrono::milliseconds kWaitForHolder{200};

}  // namespace

HeldFile::HeldFile(std::string path, const std::function<bool()>& stop) : path_(std::move(path)) {
    if (path_.empty()) return;
    for (;;) {
        KSCacheHold* hold = nullptr;
        const uint32_t status = KSCacheHoldFile(path_.c_str(), &hold);
        hold_.reset(hold);
        if (status == CR_STATUS_OK) return;
        const bool busy = status == CR_STATUS_BUSY;
        if (!busy || !stop || stop()) {
            throw Failure(busy ? ExitCode::kHeld : ExitCode::kFailed,
                          tool::printable(path_) + ": " + tool::whyNotReplaced(path_, status));
        }
        std::this_thread::sleep_for(kWaitForHolder);
    }
}

uint64_t HeldFile::size() const {
    std::error_code missing;
    const uintmax_t size = path_.empty() ? 0 : std::filesystem::file_size(path_, missing);
    return missing ? 0 : size;
}

void HeldFile::replace(const KSCache* cache) const {
    const uint32_t status = KSCacheReplaceFile(cache, path_.c_str(), hold_.get(), nullptr);
    if (status == CR_STATUS_OK) return;
    throw Failure(tool::printable(path_) +
                  ": could not be replaced: " + tool::whyNotReplaced(path_, status));
}

}  // namespace agent
