// Launches the helper daemon, restarts it when it dies and stops it. Main thread.
//
// Order of a launch: an earlier daemon is stopped first, so that at most one runs; everything the
// new one must know is in its environment. A death after a start brings a restart with a doubling
// delay; a missing executable or a failed start does not.
#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/bundle.h"
#include "base/main_loop.h"
#include "platform/process_host.h"
#include "state/app_log.h"
#include "state/app_state.h"
#include "state/daemon_environment.h"
#include "state/line_splitter.h"
#include "state/process_killer.h"

namespace vesko {

/// Told what happens to the daemon. Main thread.
class DaemonObserver {
 public:
  virtual ~DaemonObserver() = default;
  /// The process runs and can be written to.
  virtual void daemonStarted() = 0;
  /// One line of its output, without the newline. `headLost`: what came before it in the same line
  /// was not UTF-8 and was dropped, so that nothing tells what kind of line it was.
  virtual void daemonLine(std::string_view line, bool headLost) = 0;
  /// It is about to be stopped; it may have ended already.
  virtual void daemonStopping() = 0;
  /// What it was working on is lost, for example by "daemon exit".
  virtual void daemonInterrupted(std::string_view cause) = 0;
};

/// Where commands to the daemon go. Main thread.
class DaemonChannel {
 public:
  enum class Failure { unavailable, writeFailed };
  struct Error {
    Failure failure;
    std::string message;
  };

  virtual ~DaemonChannel() = default;
  virtual bool daemonRunning() const = 0;
  /// Writes `line` and a newline as a whole. Nothing is kept for a later daemon.
  virtual std::expected<void, Error> sendLine(std::string_view line) = 0;
};

class DaemonSupervisor : public DaemonChannel {
 public:
  struct Context {
    AppState& state;
    AppLog& log;
    MainLoop& loop;
    ProcessHost& processes;
    ProcessKiller& killer;
    const Bundle& bundle;
    /// Gathers what a launch tells the daemon, given the launch's pairing code.
    std::function<DaemonLaunchInputs(std::optional<std::string>)> launchInputs;
  };

  explicit DaemonSupervisor(Context context);

  /// Before the first launch; `observer` outlives this.
  void setObserver(DaemonObserver& observer) { observer_ = &observer; }

  void launchDaemon(std::optional<std::string> pairingCode) VESKO_REQUIRES(mainThread);
  /// With the pairing code of the attempt that is under way, if one is.
  void relaunchDaemon() VESKO_REQUIRES(mainThread);
  void stopDaemon() VESKO_REQUIRES(mainThread);
  /// Launches what was held back while wipes were running. False when nothing was held.
  bool replayHeldLaunch() VESKO_REQUIRES(mainThread);
  /// Drops a restart that is waiting for its delay.
  void cancelRestart() VESKO_REQUIRES(mainThread) { restartTask_.cancel(); }

  /// Ends daemons of the same application that an earlier run has left behind: by executable name
  /// and the identifier of the bundle around it. `self` is this process.
  void killStrayDaemons(pid_t self) VESKO_REQUIRES(mainThread);

  bool daemonRunning() const override;
  std::expected<void, Error> sendLine(std::string_view line) override;

 private:
  void start(ProcessLaunch launch) VESKO_REQUIRES(mainThread);
  void clearOutput() VESKO_REQUIRES(mainThread);
  void handleOutput(std::string_view chunk, std::uint64_t generation) VESKO_REQUIRES(mainThread);
  void handleDaemonExit(ProcessExit exit, std::uint64_t generation) VESKO_REQUIRES(mainThread);
  void scheduleRestart() VESKO_REQUIRES(mainThread);
  bool shouldRun() const VESKO_REQUIRES(mainThread);

  Context context_;
  DaemonObserver* observer_ = nullptr;
  std::unique_ptr<ChildProcess> process_ VESKO_GUARDED_BY(mainThread);
  LineSplitter output_ VESKO_GUARDED_BY(mainThread);
  bool headLost_ VESKO_GUARDED_BY(mainThread) = false;  ///< of the line that output_ completes next
  Timer restartTask_ VESKO_GUARDED_BY(mainThread);
};

}  // namespace vesko
