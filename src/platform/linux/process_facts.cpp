#include "platform/linux/process_facts.h"

#include <fmt/format.h>

#include "base/file.h"
#include "base/text.h"

namespace vesko {
namespace {

constexpr std::size_t maxStatBytes = 4096;
constexpr std::size_t maxListBytes = 4 << 20;

/// Of /proc/PID/stat, counted from the one behind the command's closing parenthesis.
constexpr std::size_t stateField = 0;
constexpr std::size_t startTimeField = 19;

/// Start times count from the start of the machine.
std::string bootMark() {
  const auto id = readFile("/proc/sys/kernel/random/boot_id", 128);
  return id ? id->substr(0, id->find('-')) : "0";
}

std::vector<std::string> zeroTerminated(pid_t pid, std::string_view file) {
  std::vector<std::string> texts;
  const auto bytes = readFile(fmt::format("/proc/{}/{}", pid, file), maxListBytes);
  if (!bytes) return texts;
  for (const auto text : splitDroppingEmpty(*bytes, '\0')) texts.emplace_back(text);
  return texts;
}

}  // namespace

std::optional<std::string> processStartToken(pid_t pid) {
  if (pid <= 0) return std::nullopt;
  const auto stat = readFile(fmt::format("/proc/{}/stat", pid), maxStatBytes);
  if (!stat) return std::nullopt;
  // The command may hold anything, also parentheses and spaces.
  const auto end = stat->rfind(')');
  if (end == std::string::npos) return std::nullopt;
  const auto fields = splitDroppingEmpty(trim(std::string_view(*stat).substr(end + 1)), ' ');
  if (fields.size() <= startTimeField) return std::nullopt;
  const std::string_view state = fields[stateField];
  if (state == "Z" || state == "X" || state == "x") return std::nullopt;
  static const std::string boot = bootMark();
  return fmt::format("{}-{}", fields[startTimeField], boot);
}

std::optional<std::string> startVariable(pid_t pid, std::string_view name) {
  for (const std::string& entry : zeroTerminated(pid, "environ")) {
    if (entry.size() > name.size() && entry.starts_with(name) && entry[name.size()] == '=')
      return entry.substr(name.size() + 1);
  }
  return std::nullopt;
}

std::vector<std::string> commandLine(pid_t pid) {
  return zeroTerminated(pid, "cmdline");
}

}  // namespace vesko
