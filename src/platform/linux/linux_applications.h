// Applications of a Linux desktop: installed by their desktop entries, running by the processes
// that have windows.
#pragma once

#include <chrono>
#include <vector>

#include "base/main_loop.h"
#include "platform/applications.h"
#include "platform/linux/application_identity.h"
#include "platform/linux/desktop_entries.h"
#include "platform/linux/detached_process.h"
#include "platform/linux/x11_session.h"

namespace vesko {

/// Any thread; no lock is held while waiting. What it launches is reaped on the main loop.
class LinuxApplications : public Applications {
 public:
  /// How long a launch may take to show a window before that it runs is enough.
  static constexpr std::chrono::milliseconds launchPatience{6000};
  /// How long an application may take to end, or to ask its user.
  static constexpr std::chrono::milliseconds quitPatience{5000};

  /// `environment` is that of this process. Everything outlives this.
  LinuxApplications(MainLoop& loop, X11Sessions& sessions, WindowSystem& windows,
                    Environment environment);

  std::vector<RunningApplication> running() override;
  std::optional<RunningApplication> process(pid_t pid) override;
  std::optional<RunningApplication> frontmost() override;
  std::vector<InstalledApplication> installed() override;
  std::optional<InstalledApplication> installed(const std::string& bundleIdentifier) override;
  std::expected<pid_t, std::string> launch(const InstalledApplication& application) override;
  bool activate(const RunningApplication& application) override;
  bool quit(const RunningApplication& application) override;

 private:
  struct Launch;

  std::expected<pid_t, std::string> launchOverBus(const InstalledEntry& entry, bool& unknown);
  std::expected<pid_t, std::string> launchCommand(const InstalledEntry& entry);
  std::expected<pid_t, std::string> awaitStart(Launch& launch);
  std::optional<pid_t> instanceOf(const std::string& id);
  void reapLater(DetachedProcess process);

  MainLoop& loop_;
  X11Sessions& sessions_;
  WindowSystem& windows_;
  const Environment environment_;
  DesktopEntries entries_;
  ApplicationIdentities identities_;
};

}  // namespace vesko
