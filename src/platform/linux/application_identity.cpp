#include "platform/linux/application_identity.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <vector>

#include "base/text.h"
#include "platform/linux/process_facts.h"
#include "platform/linux/process_identity.h"

namespace vesko {
namespace {

constexpr std::size_t maxKnown = 1024;

/// What an application or an environment calls an id has to look like one (D-Bus names, GLib's
/// application ids, file names of desktop entries).
bool looksLikeId(std::string_view text) {
  constexpr std::size_t longest = 255;
  return !text.empty() && text.size() <= longest && text.front() != '.' &&
         std::ranges::all_of(text, [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-' || c == '+';
         });
}

std::string idFromWindows(std::span<const X11Window> windows) {
  const auto found = std::ranges::find_if(
      windows, [](const X11Window& each) { return looksLikeId(each.gtkApplicationId); });
  return found == windows.end() ? std::string() : found->gtkApplicationId;
}

std::string idFromLaunch(pid_t pid, const DesktopCatalogue& catalogue) {
  // Children inherit both variables, but the pid in them stays that of the launched process.
  const auto launched = startVariable(pid, "GIO_LAUNCHED_DESKTOP_FILE_PID");
  if (!launched || parseDecimal(*launched) != pid) return {};
  const auto file = startVariable(pid, "GIO_LAUNCHED_DESKTOP_FILE");
  if (!file) return {};
  if (const InstalledEntry* entry = catalogue.findFile(*file)) return entry->id;
  const std::string id = std::filesystem::path(*file).stem();
  return looksLikeId(id) ? id : std::string();
}

std::string idFromClass(std::span<const X11Window> windows, const DesktopCatalogue& catalogue) {
  for (const X11Window& window : windows) {
    for (const std::string& name : {window.className, window.instance}) {
      if (name.empty()) continue;
      for (const InstalledEntry& each : catalogue.entries()) {
        if (each.listed && each.entry.startupWmClass == name) return each.id;
      }
    }
  }
  // Toolkits make the class from the application's id where it has one.
  for (const X11Window& window : windows) {
    const std::string name = lowerAscii(window.className);
    for (const InstalledEntry& each : catalogue.entries()) {
      if (!name.empty() && lowerAscii(each.id) == name) return each.id;
    }
  }
  return {};
}

/// Every argument that the entry itself gives is among those of the process.
bool startedWith(const std::vector<std::string>& command, const std::vector<std::string>& given) {
  return std::ranges::all_of(command.begin() + 1, command.end(), [&given](const auto& argument) {
    return std::ranges::find(given, argument) != given.end();
  });
}

std::string idFromProgram(pid_t pid, const DesktopCatalogue& catalogue) {
  const auto executable = processExecutable(pid);
  if (!executable) return {};
  const std::string program = executable->filename();
  const auto given = commandLine(pid);
  const InstalledEntry* best = nullptr;
  for (const InstalledEntry& each : catalogue.entries()) {
    // A program for terminals has no windows of its own.
    if (!each.listed || each.entry.terminal || each.command.empty() ||
        std::filesystem::path(each.command.front()).filename() != program ||
        !startedWith(each.command, given))
      continue;
    if (!best || each.command.size() > best->command.size()) best = &each;
  }
  return best ? best->id : std::string();
}

std::string nameOf(pid_t pid, const std::string& id, std::span<const X11Window> windows,
                   const DesktopCatalogue& catalogue) {
  const InstalledEntry* entry = id.empty() ? nullptr : catalogue.find(id);
  if (entry && !entry->entry.localizedName.empty()) return entry->entry.localizedName;
  const auto classed =
      std::ranges::find_if(windows, [](const X11Window& each) { return !each.className.empty(); });
  if (classed != windows.end()) return classed->className;
  const auto executable = processExecutable(pid);
  return executable ? executable->filename().native() : id;
}

}  // namespace

std::optional<RunningApplication> ApplicationIdentities::known(pid_t pid) {
  const auto token = processStartToken(pid);
  const MutexLock lock(mutex_);
  const auto found = known_.find(pid);
  if (!token || found == known_.end() || found->second.startToken != *token) return std::nullopt;
  return found->second;
}

std::optional<RunningApplication> ApplicationIdentities::identify(
    pid_t pid, std::span<const X11Window> windows) {
  if (auto application = known(pid)) return application;
  const auto token = processStartToken(pid);
  if (!token) return std::nullopt;
  const auto catalogue = entries_.current();
  std::string id = idFromWindows(windows);
  if (id.empty()) id = idFromLaunch(pid, *catalogue);
  if (id.empty()) id = idFromClass(windows, *catalogue);
  if (id.empty()) id = idFromProgram(pid, *catalogue);
  RunningApplication application{.pid = pid,
                                 .bundleIdentifier = id,
                                 .name = nameOf(pid, id, windows, *catalogue),
                                 .startToken = *token};
  // All of this is worth nothing when the pid changed hands meanwhile.
  if (processStartToken(pid) != token) return std::nullopt;
  if (windows.empty()) return application;
  const MutexLock lock(mutex_);
  if (known_.size() >= maxKnown) known_.clear();
  known_.insert_or_assign(pid, application);
  return application;
}

}  // namespace vesko
