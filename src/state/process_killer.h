// Ends processes: SIGTERM, then SIGKILL for those that still live after the grace time. Main
// thread.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "base/main_loop.h"
#include "base/main_thread.h"
#include "platform/process_host.h"
#include "state/app_log.h"

namespace vesko {

class ProcessKiller {
 public:
  static constexpr Duration grace = std::chrono::seconds(3);

  ProcessKiller(MainLoop& loop, AppLog& log) : loop_(loop), log_(log) {}

  /// Sends SIGTERM now. If the process is alive `grace` later, logs `name` + " pid=" + pid +
  /// " ignored SIGTERM; sending SIGKILL" and sends SIGKILL.
  void end(std::unique_ptr<ProcessReference> process, pid_t pid, std::string name)
      VESKO_REQUIRES(mainThread);

  /// No process that was to end is still alive.
  bool idle() const { return pending_.empty(); }

  /// Calls `done` when the last process has ended, never before returning; replaces an earlier one.
  void whenIdle(Closure done) VESKO_REQUIRES(mainThread);

 private:
  struct Pending {
    std::unique_ptr<ProcessReference> process;
    Timer timer;
  };

  void ended(std::list<Pending>::iterator entry) VESKO_REQUIRES(mainThread);

  MainLoop& loop_;
  AppLog& log_;
  std::list<Pending> pending_;
  Closure whenIdle_;
};

}  // namespace vesko
