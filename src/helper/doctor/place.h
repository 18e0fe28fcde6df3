// Where the doctor looks, and what it asks of the system it runs on. Any thread.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/bundle.h"
#include "base/directories.h"
#include "helper/doctor/check.h"

namespace vesko {

class ConsentEditor;

/// The running application.
struct CompanionProcess {
  pid_t pid = -1;
  std::filesystem::path executable{};
  bool replaced = false;  ///< the file was removed or replaced after the start
  std::time_t started = 0;
  std::optional<std::string> display{};  ///< its $DISPLAY
};

/// What differs from system to system.
struct DoctorSystem {
  /// What the bundle holds besides the programs of every system, below Contents.
  std::vector<std::string> bundleParts;
  /// The process of this user that holds the file open, an application; nothing when none does.
  std::function<std::optional<CompanionProcess>(const std::filesystem::path& instanceLock)>
      companion;
  /// The desktop's own checks.
  std::function<std::vector<Check>()> checks;
};

/// One installation.
struct DoctorPlace {
  std::string version;  ///< of this program
  std::optional<Bundle> bundle;
  Directories directories;
  std::filesystem::path socket;
  const DoctorSystem& system;
  /// Null on a desktop that keeps the permissions itself.
  std::shared_ptr<ConsentEditor> consents;

  std::optional<CompanionProcess> companion() const {
    return system.companion ? system.companion(directories.state / "companion.lock") : std::nullopt;
  }
};

/// The checks of the application's own parts, and of what it keeps for its user. They hold
/// references to `place`.
std::vector<Check> companionChecks(const DoctorPlace& place);
std::vector<Check> userChecks(const DoctorPlace& place);

}  // namespace vesko
