// Starting an application so that it lives on its own: a session of its own, nothing inherited but
// a cleaned environment.
#pragma once

#include <sys/types.h>

#include <expected>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "platform/linux/desktop_entries.h"

namespace vesko {

/// A child of this process that nothing else waits for: whoever has this reaps it.
struct DetachedProcess {
  pid_t pid = 0;
  UniqueFd pidfd = {};
};

/// Any thread. `own` is the environment of this process. The error is a text for people.
std::expected<DetachedProcess, std::string> startDetached(const InstalledEntry& entry,
                                                          const Environment& own);

/// How it ended, reaping it: nothing while it runs, an empty text for success.
std::optional<std::string> endOf(const DetachedProcess& process);

}  // namespace vesko
