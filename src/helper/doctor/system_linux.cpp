#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "base/file.h"
#include "base/text.h"
#include "helper/doctor/system.h"
#include "platform/linux/bus_report.h"
#include "platform/linux/dbus_address.h"
#include "platform/linux/display_report.h"
#include "platform/linux/process_identity.h"

namespace vesko {
namespace {

namespace fs = std::filesystem;

// Longer than what the checks are given: these end them before.
constexpr std::chrono::seconds busTime{30};

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

// --- Processes --------------------------------------------------------------------------------

bool holdsOpen(const fs::path& process, const struct stat& file) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(process / "fd", error)) {
    struct stat info{};
    if (::stat(entry.path().c_str(), &info) == 0 && info.st_dev == file.st_dev &&
        info.st_ino == file.st_ino)
      return true;
  }
  return false;
}

/// Of /proc/pid/stat, in clock ticks since the system's start; the name before it may hold spaces
/// and brackets.
std::time_t startTime(const fs::path& process) {
  constexpr std::size_t startField = 19;  // counted from the one behind the name
  const auto text = readFile(process / "stat", 65536).value_or("");
  const auto fields = splitDroppingEmpty(
      std::string_view(text).substr(std::min(text.size(), text.rfind(')') + 1)), ' ');
  const auto ticks = fields.size() > startField ? parseDecimal(fields[startField]) : std::nullopt;
  timespec sinceBoot{};
  ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
  const auto age = sinceBoot.tv_sec - ticks.value_or(0) / ::sysconf(_SC_CLK_TCK);
  // A second is lost in rounding: what the process did in its first one still counts as its own.
  return std::time(nullptr) - age - 1;
}

std::optional<std::string> variableOf(const fs::path& process, std::string_view name) {
  const auto environment = readFile(process / "environ", 4 << 20).value_or("");
  for (const std::string_view entry : splitDroppingEmpty(environment, '\0')) {
    if (entry.size() > name.size() && entry.starts_with(name) && entry[name.size()] == '=')
      return std::string(entry.substr(name.size() + 1));
  }
  return std::nullopt;
}

std::optional<CompanionProcess> companionHolding(const fs::path& instanceLock) {
  struct stat lock{};
  if (::stat(instanceLock.c_str(), &lock) != 0) return std::nullopt;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    const auto pid = parseDecimal(entry.path().filename().native());
    struct stat owner{};
    if (!pid || ::stat(entry.path().c_str(), &owner) != 0 || owner.st_uid != ::geteuid() ||
        !holdsOpen(entry.path(), lock))
      continue;
    CompanionProcess process{.pid = static_cast<pid_t>(*pid)};
    process.executable = processExecutable(process.pid).value_or("");
    struct stat running{};
    struct stat present{};
    process.replaced = ::stat((entry.path() / "exe").c_str(), &running) == 0 &&
                       (::stat(process.executable.c_str(), &present) != 0 ||
                        running.st_ino != present.st_ino || running.st_dev != present.st_dev);
    process.started = startTime(entry.path());
    process.display = variableOf(entry.path(), "DISPLAY");
    return process;
  }
  return std::nullopt;
}

// --- Display ----------------------------------------------------------------------------------

std::vector<Finding> display() {
  const std::string name = variable("DISPLAY");
  const auto report =
      name.empty() ? std::nullopt
                   : reportDisplay({"XTEST", "XKEYBOARD", "XInputExtension", "RANDR", "MIT-SHM",
                                    "Composite", "XFIXES", "DAMAGE"},
                                   {"_NET_CLIENT_LIST", "_NET_ACTIVE_WINDOW", "_NET_CLOSE_WINDOW",
                                    "_NET_MOVERESIZE_WINDOW", "_NET_WM_STATE",
                                    "_NET_WM_STATE_HIDDEN", "_NET_WM_STATE_FULLSCREEN"});
  std::vector<Finding> findings;
  if (!report) {
    findings.push_back(
        {.id = "display",
         .status = CheckStatus::missing,
         .summary = name.empty() ? "DISPLAY is not set: there is no desktop to see and operate"
                                 : "no X server lets this user in on display " + name,
         .advice = name.empty() ? "Run this, and the companion, within the desktop's session."
                                : "Set DISPLAY, and XAUTHORITY where the session has one."});
    for (const char* other : {"display_extensions", "window_manager"})
      findings.push_back({.id = other, .summary = "not looked at: no display"});
  } else {
    std::string sizes;
    for (const auto& [width, height] : report->screens)
      sizes += fmt::format("{}{}x{}", sizes.empty() ? "" : ", ", width, height);
    findings.push_back({.id = "display",
                        .status = CheckStatus::ok,
                        .summary = fmt::format("{}, {} screen{}: {}", name, report->screens.size(),
                                               report->screens.size() == 1 ? "" : "s", sizes)});
    const auto& lacking = report->missingExtensions;
    findings.push_back(
        {.id = "display_extensions",
         .status = lacking.empty() ? CheckStatus::ok : CheckStatus::missing,
         .summary = lacking.empty() ? "all that are used" : "lacks " + joined(lacking),
         .advice = lacking.empty() ? "" : "Switch them on in the X server."});
    Finding manager{.id = "window_manager", .status = CheckStatus::missing};
    if (!report->windowManager) {
      manager.summary = "none, or one without the hints by which windows are listed and moved";
      manager.advice = "Start a window manager, for example openbox.";
    } else if (const auto& hints = report->windowManager->missingHints; !hints.empty()) {
      manager.status = CheckStatus::warning;
      manager.summary = fmt::format("{} lacks {}", report->windowManager->name, joined(hints));
      manager.advice = "Some actions on windows will be refused.";
    } else {
      manager.status = CheckStatus::ok;
      manager.summary = report->windowManager->name;
    }
    findings.push_back(std::move(manager));
  }
  if (!variable("WAYLAND_DISPLAY").empty() || variable("XDG_SESSION_TYPE") == "wayland")
    findings.push_back(
        {.id = "wayland",
         .status = CheckStatus::warning,
         .summary = "a Wayland session: only what runs through Xwayland is seen",
         .advice = "Choose an X11 session when you log in, to have all of it seen."});
  return findings;
}

// --- Services ---------------------------------------------------------------------------------

std::optional<SessionBus> sessionBus() {
  return SessionBus::connect(SessionBus::Clock::now() + busTime);
}

std::vector<Finding> busFinding() {
  Finding finding{.id = "session_bus", .status = CheckStatus::missing};
  finding.advice = "Run this, and the companion, within the desktop's session.";
  if (sessionBusAddress().empty()) {
    finding.summary = "there is none: DBUS_SESSION_BUS_ADDRESS and XDG_RUNTIME_DIR are not set";
  } else if (!sessionBus()) {
    finding.summary = "no bus takes this user in at " + sessionBusAddress();
  } else {
    finding = {.id = "session_bus", .status = CheckStatus::ok, .summary = "answers"};
  }
  return {finding};
}

std::vector<Finding> accessibility() {
  Finding finding{.id = "accessibility_bus"};
  auto session = sessionBus();
  if (!session) {
    finding.summary = "not looked at: no session bus";
    return {finding};
  }
  const AccessibilityReport report = session->accessibility();
  if (report.launcher == ServiceState::absent) {
    finding.status = CheckStatus::missing;
    finding.summary = "not installed: applications cannot tell what they show";
    finding.advice = "Install at-spi2-core.";
  } else if (report.launcher == ServiceState::startable) {
    finding.status = CheckStatus::ok;
    finding.summary = "starts when it is first used";
  } else if (!report.answers) {
    finding.status = CheckStatus::missing;
    finding.summary = "does not answer";
    finding.advice = "Log out and in again; its launcher is at-spi-bus-launcher.";
  } else if (!report.enabled) {
    finding.status = CheckStatus::warning;
    finding.summary = fmt::format("answers, switched off; applications: {}", report.applications);
    finding.advice =
        "The companion switches it on at its first look. Applications that still show nothing of "
        "themselves then have to be started anew.";
  } else {
    finding.status = CheckStatus::ok;
    finding.summary = fmt::format("answers, switched on; applications: {}", report.applications);
  }
  return {finding};
}

std::vector<Finding> keyring() {
  Finding finding{.id = "keyring", .status = CheckStatus::warning};
  auto session = sessionBus();
  if (!session) {
    finding.status = CheckStatus::unknown;
    finding.summary = "not looked at: no session bus";
    return {finding};
  }
  const KeyringReport report = session->keyring();
  if (report.service == ServiceState::absent) {
    finding.summary = "none: the companion has no safe place for the secret of a pairing";
    finding.advice = "Install gnome-keyring, or another Secret Service.";
  } else if (report.service == ServiceState::startable) {
    finding.status = CheckStatus::ok;
    finding.summary = "starts when it is first used";
  } else if (!report.answers) {
    finding.summary = "does not answer";
    finding.advice = "Log out and in again.";
  } else if (!report.hasCollection) {
    finding.summary = "has no default collection to keep secrets in";
    finding.advice = "Make one, for example with seahorse.";
  } else if (report.locked) {
    finding.summary = "locked";
    finding.advice = "It asks for its password when the companion first needs it.";
  } else {
    finding.status = CheckStatus::ok;
    finding.summary = "unlocked";
  }
  return {finding};
}

std::vector<Check> desktopChecks() {
  constexpr const char* again = "Log out and in again.";
  return {{"display", CheckStatus::missing, again, display},
          {"session_bus", CheckStatus::missing, again, busFinding},
          {"accessibility_bus", CheckStatus::missing, again, accessibility},
          {"keyring", CheckStatus::warning, again, keyring}};
}

}  // namespace

DoctorSystem doctorSystem() {
  return {.bundleParts = {"Resources/vesko-privacy", "PlugIns/VeskoPhotos.so"},
          .companion = companionHolding,
          .checks = desktopChecks};
}

}  // namespace vesko
