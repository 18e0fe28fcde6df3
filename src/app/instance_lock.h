// Lets one instance of the application run for a user and bundle identifier. Main thread.
#pragma once

#include <filesystem>

#include "base/unique_fd.h"

namespace vesko {

/// Holds an advisory lock (flock) on a file of the state directory; the system lets go of it when
/// the process ends, however it ends. Child processes do not inherit it.
class InstanceLock {
 public:
  enum class Outcome {
    acquired,
    taken,        ///< another instance runs
    unavailable,  ///< the file cannot be made, so nobody can tell
  };

  Outcome acquire(const std::filesystem::path& stateDirectory);

 private:
  UniqueFd file_;
};

}  // namespace vesko
