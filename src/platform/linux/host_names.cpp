#include "platform/linux/host_names.h"

#include <glib.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <string_view>

#include "base/file.h"
#include "base/text.h"
#include "base/utf8.h"

namespace vesko {
namespace {

constexpr std::size_t maxMachineInfo = 64 << 10;

// The file holds assignments in shell syntax; a value that does not unquote is none.
std::string unquoted(std::string_view value) {
  const std::unique_ptr<char, decltype(&g_free)> text(
      g_shell_unquote(std::string(value).c_str(), nullptr), &g_free);
  return text && isValidUtf8(text.get()) ? text.get() : "";
}

}  // namespace

std::string LinuxHostNames::computerName() {
  constexpr std::string_view key = "PRETTY_HOSTNAME=";
  const auto content = readFile(machineInfo_, maxMachineInfo);
  if (!content) return {};
  std::string name;
  for (std::string_view line : splitDroppingEmpty(*content, '\n')) {
    line = trim(line);
    if (line.starts_with(key)) name = unquoted(line.substr(key.size()));
  }
  return name;
}

std::string LinuxHostNames::hostName() {
  char name[HOST_NAME_MAX + 1] = {};
  if (::gethostname(name, sizeof name - 1) != 0 || !isValidUtf8(name)) return {};
  return name;
}

}  // namespace vesko
