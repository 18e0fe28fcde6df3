// What the helper learns from its environment at start.
#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace vesko {

struct HelperSettings {
  std::filesystem::path stateDirectory;  ///< exists and is writable
  std::string version;
  std::string deviceName;
  std::optional<pid_t> parent;  ///< the companion; none when started by hand
  std::vector<std::string> grantedDirs;
  std::optional<std::string> photosLibrary;

  /// The error says what is wrong in words for standard error.
  static std::expected<HelperSettings, std::string> fromEnvironment();
};

}  // namespace vesko
