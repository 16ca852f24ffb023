// The folders one level below the paths that a user named, by which reports sum up.
#ifndef TOOLS_AGENT_TOP_FOLDERS_H
#define TOOLS_AGENT_TOP_FOLDERS_H

#include <string>
#include <unordered_set>

#include "tools/agent/walk.h"

namespace agent {

class TopFolders {
  public:
    explicit TopFolders(const WalkOptions& options);

    /// For a file of a walk: the folder one level below the nearest named path, or that path itself
    /// if the file is directly in it. For a file that is named itself: its folder.
    std::string of(const std::string& file) const;

  private:
    std::unordered_set<std::string> named_;  ///< without slashes at the end
};

}  // namespace agent

#endif
