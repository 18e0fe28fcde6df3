// Child processes by posix_spawn and pidfds, and other processes by /proc and pidfds (Linux 5.4).
//
// Every wait is an event of GLib's default main context: no threads. A child starts with default
// signal dispositions, an empty signal mask and its three standard streams alone. Precondition:
// the application ignores SIGPIPE.
#pragma once

#include "platform/process_host.h"

namespace vesko {

/// Main thread. Holds nothing: children that were started outlive it and are reaped when they end,
/// as long as the main context is run.
class LinuxProcessHost : public ProcessHost {
 public:
  std::expected<std::unique_ptr<ChildProcess>, std::string> launch(ProcessLaunch launch) override;

  std::vector<pid_t> processIds() override;
  /// For a script started through its "#!" line, the script rather than its interpreter; for a file
  /// that was replaced or removed since, the path it had.
  std::optional<std::filesystem::path> executablePath(pid_t pid) override;
  std::unique_ptr<ProcessReference> open(pid_t pid) override;
};

}  // namespace vesko
