#include "base/directories.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace vesko {

Directories Directories::under(const std::filesystem::path& home,
                               const std::optional<std::string>& bundleIdentifier) {
  const std::string identifier = bundleIdentifier.value_or(std::string(releaseBundleIdentifier));
  const bool development = identifier != releaseBundleIdentifier;
  const auto library = home / "Library";
  const char* folder = development ? "VeskoKit-Dev" : "VeskoKit";
  return {
      .home = home,
      .state = library / "Application Support" / folder,
      .cache = library / "Caches" / folder,
      .logs = library / "Logs" / (development ? "veskokit-dev" : "veskokit"),
      .launchAgents = library / "LaunchAgents",
      .defaultsFile = library / "Preferences" / (identifier + ".plist"),
  };
}

std::filesystem::path homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  const passwd* entry = ::getpwuid(::getuid());
  return entry && entry->pw_dir ? entry->pw_dir : "";
}

}  // namespace vesko
