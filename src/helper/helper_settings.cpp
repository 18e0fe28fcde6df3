#include "helper/helper_settings.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "base/text.h"
#include "base/unique_fd.h"

namespace vesko {
namespace {

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

std::expected<HelperSettings, std::string> HelperSettings::fromEnvironment() {
  HelperSettings settings;
  settings.stateDirectory = variable("VESKOKIT_STATE_DIR");
  if (settings.stateDirectory.empty())
    return std::unexpected("VESKOKIT_STATE_DIR is not set; it names the state directory");
  const char* path = settings.stateDirectory.c_str();
  const UniqueFd directory(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::faccessat(AT_FDCWD, path, R_OK | W_OK | X_OK, AT_EACCESS) != 0)
    return std::unexpected(
        fmt::format("the state directory {} cannot be used: {}", path, std::strerror(errno)));

  settings.version = variable("VESKOKIT_VERSION");
  if (settings.version.empty()) settings.version = "0.0.0";
  settings.deviceName = variable("VESKOKIT_DEVICE_NAME");
  if (const std::string text = variable("VESKOKIT_PARENT_PID"); !text.empty()) {
    const auto pid = parseDecimal(text);
    if (!pid || *pid <= 1 || *pid > std::numeric_limits<pid_t>::max())
      return std::unexpected("VESKOKIT_PARENT_PID is not a process id");
    settings.parent = static_cast<pid_t>(*pid);
  }
  const std::string dirs = variable("VESKOKIT_GRANTED_DIRS");
  for (const std::string_view dir : splitDroppingEmpty(dirs, '\n'))
    settings.grantedDirs.emplace_back(dir);
  if (std::string library = variable("VESKOKIT_PHOTOS_LIBRARY"); !library.empty())
    settings.photosLibrary = std::move(library);
  return settings;
}

}  // namespace vesko
