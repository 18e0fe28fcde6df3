// Relaunches the daemon when something it was told at its launch has changed. Main thread.
#pragma once

#include <functional>

#include "access/protected_grants.h"
#include "base/main_loop.h"
#include "state/app_log.h"
#include "state/app_state.h"

namespace vesko {

/// One reading of everything that reaches the daemon through its environment.
struct DaemonGrantReading {
  FolderGrant messages;
  FolderGrant notes;
  bool contacts = false;
  bool photosLibrary = false;
};

class DaemonGrantWatch {
 public:
  static constexpr Duration photosDelay = std::chrono::seconds(2);

  DaemonGrantWatch(AppState& state, AppLog& log, MainLoop& loop,
                   std::function<void()> relaunchDaemon)
      : state_(state), log_(log), loop_(loop), relaunchDaemon_(std::move(relaunchDaemon)) {}

  /// Publishes what changed and relaunches the daemon for it, once for several changes. The first
  /// reading is what the first daemon is launched with and relaunches nothing.
  void update(const DaemonGrantReading& now) VESKO_REQUIRES(mainThread);

  /// Drops a relaunch that is waiting for its delay.
  void cancel() VESKO_REQUIRES(mainThread) { photosRelaunch_.cancel(); }

 private:
  bool logChanges(const DaemonGrantReading& before, const DaemonGrantReading& now)
      VESKO_REQUIRES(mainThread);

  AppState& state_;
  AppLog& log_;
  MainLoop& loop_;
  const std::function<void()> relaunchDaemon_;
  DaemonGrantReading previous_ VESKO_GUARDED_BY(mainThread);
  Timer photosRelaunch_ VESKO_GUARDED_BY(mainThread);
};

}  // namespace vesko
