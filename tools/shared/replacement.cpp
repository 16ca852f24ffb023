#include "tools/shared/replacement.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace tool {

Replacement::Replacement(std::string target, std::string path)
    : target_(std::move(target)), path_(std::move(path)) {}

Replacement::~Replacement() {
    if (!placed_) remove(path_.c_str());
}

std::optional<std::string> Replacement::place() {
    if (rename(path_.c_str(), target_.c_str()) != 0) return strerror(errno);
    placed_ = true;
    return {};
}

std::optional<std::string> Replacement::removeTarget() const {
    if (remove(target_.c_str()) != 0 && errno != ENOENT) return strerror(errno);
    return {};
}

}  // namespace tool
