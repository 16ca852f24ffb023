// Replacing a file as a whole.
#ifndef TOOLS_SHARED_REPLACEMENT_H
#define TOOLS_SHARED_REPLACEMENT_H

#include <optional>
#include <string>

namespace tool {

/// A new file that takes the name of another one when it is complete, by rename(): whoever opens
/// the target finds the old contents or the new ones, never a part. Owns the new file, which is
/// removed unless it was placed.
class Replacement {
  public:
    /// `path` exists, in the folder of `target`, since rename() cannot cross file systems.
    Replacement(std::string target, std::string path);
    ~Replacement();
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    const std::string& target() const { return target_; }
    const std::string& path() const { return path_; }

    /// Gives the new file the target's name. Returns the system's reason when that fails.
    std::optional<std::string> place();

    /// Removes the target, where the new contents are such that there is to be no file. A target
    /// that does not exist is no problem.
    std::optional<std::string> removeTarget() const;

  private:
    std::string target_;
    std::string path_;
    bool placed_ = false;
};

}  // namespace tool

#endif
