// Applications and windows in memory: they start, end, come to the front and move as on a desktop,
// and refuse or vanish on demand. Any thread.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "platform/applications.h"

namespace vesko::fakes {

class FakeApplications : public Applications {
 public:
  /// A process that runs already; the first one is frontmost. Its start token is made up when
  /// empty.
  pid_t add(RunningApplication application);
  /// launch() starts it, or answers with the instance that runs. An error text makes it fail.
  void install(InstalledApplication application, std::optional<std::string> launchError = {});
  /// The process ends, as after a crash.
  void end(pid_t pid);
  /// It ends, and another run of the same application gets its pid.
  void replace(pid_t pid);
  /// Faults: what a process does not do from now on.
  void refuseActivation(pid_t pid);
  void refuseQuit(pid_t pid);

  void setFrontmost(pid_t pid);

  std::vector<RunningApplication> running() override;
  std::optional<RunningApplication> process(pid_t pid) override;
  std::optional<RunningApplication> frontmost() override;
  std::vector<InstalledApplication> installed() override;
  std::optional<InstalledApplication> installed(const std::string& bundleIdentifier) override;
  std::expected<pid_t, std::string> launch(const InstalledApplication& application) override;
  bool activate(const RunningApplication& application) override;
  bool quit(const RunningApplication& application) override;

 private:
  struct Installed {
    InstalledApplication application;
    std::optional<std::string> launchError;
  };

  std::string newToken() VESKO_REQUIRES(mutex_);
  std::vector<RunningApplication>::iterator find(pid_t pid) VESKO_REQUIRES(mutex_);
  void remove(pid_t pid) VESKO_REQUIRES(mutex_);

  Mutex mutex_;
  std::vector<RunningApplication> running_ VESKO_GUARDED_BY(mutex_);
  std::vector<Installed> installed_ VESKO_GUARDED_BY(mutex_);
  std::set<pid_t> notActivating_ VESKO_GUARDED_BY(mutex_);
  std::set<pid_t> notQuitting_ VESKO_GUARDED_BY(mutex_);
  pid_t frontmost_ VESKO_GUARDED_BY(mutex_) = 0;
  pid_t nextPid_ VESKO_GUARDED_BY(mutex_) = 5000;
  int tokens_ VESKO_GUARDED_BY(mutex_) = 0;
};

/// The windows of the processes that live: those of an ended one are gone with it.
class FakeWindowSystem : public WindowSystem {
 public:
  explicit FakeWindowSystem(FakeApplications& applications) : applications_(applications) {}

  /// In front of the others, without the keyboard unless it says so.
  void add(DesktopWindow window);
  /// It closes while its application lives on.
  void close(std::uint32_t window);
  /// Fault: what every operation but listing answers from now on, and has no effect.
  void failWith(std::optional<AXError> error);
  /// One of 1920 by 1080 points until another is set.
  void setScreens(std::vector<Rect> frames);
  /// Fault: listing windows and screens fails.
  void failListing(std::optional<AXError> error);

  std::optional<DesktopWindow> window(std::uint32_t number);
  bool fullScreen(std::uint32_t number);
  /// Operations that reached the window system, listing not counted.
  int operations();

  std::expected<std::vector<DesktopWindow>, AXError> windows(std::optional<pid_t> pid) override;
  std::expected<std::vector<Rect>, AXError> screens() override;
  AXError focus(std::uint32_t window) override;
  AXError move(std::uint32_t window, Point to) override;
  AXError resize(std::uint32_t window, double width, double height) override;
  AXError minimize(std::uint32_t window) override;
  AXError toggleFullScreen(std::uint32_t window) override;

 private:
  using Entry = std::pair<DesktopWindow, std::optional<Rect>>;  ///< the frame before full screen

  AXError admit(std::uint32_t window, std::vector<Entry>::iterator& found) VESKO_REQUIRES(mutex_);
  void dropThoseOfEndedProcesses() VESKO_REQUIRES(mutex_);
  std::vector<Entry>::iterator find(std::uint32_t number) VESKO_REQUIRES(mutex_);

  FakeApplications& applications_;
  Mutex mutex_;
  std::vector<Entry> frontToBack_ VESKO_GUARDED_BY(mutex_);
  std::vector<Rect> screens_ VESKO_GUARDED_BY(mutex_) = {Rect{0, 0, 1920, 1080}};
  std::optional<AXError> failure_ VESKO_GUARDED_BY(mutex_);
  std::optional<AXError> listFailure_ VESKO_GUARDED_BY(mutex_);
  int operations_ VESKO_GUARDED_BY(mutex_) = 0;
};

}  // namespace vesko::fakes
