// Which application a process is: the id of its desktop entry, and its name.
//
// In this order: the id that GTK applications put on their windows, the entry that the process was
// launched by, an entry that names the class of its windows, an entry that starts its program.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

#include "base/mutex.h"
#include "platform/applications.h"
#include "platform/linux/desktop_entries.h"
#include "platform/linux/x11_windows.h"

namespace vesko {

/// Any thread. What was told once of a process that has windows stays so for as long as it lives.
class ApplicationIdentities {
 public:
  explicit ApplicationIdentities(DesktopEntries& entries) : entries_(entries) {}

  /// What is known already; nothing also once the process has ended.
  std::optional<RunningApplication> known(pid_t pid);
  /// Nothing once the process has ended. `windows` are all its own.
  std::optional<RunningApplication> identify(pid_t pid, std::span<const X11Window> windows);

 private:
  DesktopEntries& entries_;
  Mutex mutex_;
  std::unordered_map<pid_t, RunningApplication> known_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
