// Where the application keeps its files, all under the user's Library folder. Any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vesko {

inline constexpr std::string_view releaseBundleIdentifier = "com.vesko.companion-kit";

struct Directories {
  std::filesystem::path home;
  std::filesystem::path state;
  std::filesystem::path cache;
  std::filesystem::path logs;
  std::filesystem::path launchAgents;
  std::filesystem::path defaultsFile;  ///< user defaults, a property list

  /// Every identifier but the release one makes a development build with "-Dev" directories; a
  /// bundle without an identifier counts as the release build.
  static Directories under(const std::filesystem::path& home,
                           const std::optional<std::string>& bundleIdentifier);
};

/// $HOME, else the password database's entry; empty when neither names one.
std::filesystem::path homeDirectory();

}  // namespace vesko
