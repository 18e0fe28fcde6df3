#include "helper/device_id.h"

#include <fmt/format.h>

#include "base/digest.h"
#include "base/file.h"
#include "base/text.h"

namespace vesko {
namespace {

bool isUuid(std::string_view text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const bool hex = (text[i] >= '0' && text[i] <= '9') || (text[i] >= 'A' && text[i] <= 'F');
    if (dash ? text[i] != '-' : !hex) return false;
  }
  return true;
}

}  // namespace

std::expected<std::string, std::string> loadDeviceId(
    const std::filesystem::path& stateDirectory, const std::function<void(std::string_view)>& log) {
  const auto file = stateDirectory / "device-id";
  const auto content = readFile(file, 4096);
  if (content && isUuid(trim(*content))) return std::string(trim(*content));
  if (content || content.error() == std::errc::file_too_large) {
    log("the device id file was damaged; made a new device id");
  } else if (content.error() != std::errc::no_such_file_or_directory) {
    return std::unexpected(
        fmt::format("cannot read {}: {}", file.native(), content.error().message()));
  }
  std::string id = randomUuid();
  if (id.empty()) return std::unexpected("the system's random source failed");
  if (auto written = replaceFile(file, id + "\n", 0600); !written)
    return std::unexpected(
        fmt::format("cannot write {}: {}", file.native(), written.error().message()));
  return id;
}

}  // namespace vesko
