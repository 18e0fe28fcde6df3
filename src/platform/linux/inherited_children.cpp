#include "platform/linux/inherited_children.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "base/unique_fd.h"
#include "platform/linux/glib_main_loop.h"

namespace vesko {
namespace {

struct Reaper {
  UniqueFd pidfd;
  FdWatch watch = {};
};

void reapWhenEnded(pid_t child) {
  auto reaper =
      std::make_shared<Reaper>(UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0))));
  if (!reaper->pidfd) return;
  // The watch owns its reaper until the child has ended.
  reaper->watch = FdWatch(reaper->pidfd.get(), FdWatch::For::reading, [reaper, child] {
    if (::waitpid(child, nullptr, WNOHANG) != 0) reaper->watch.reset();
  });
}

}  // namespace

void reapInheritedChildren() {
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", error)) {
    std::ifstream children(task.path() / "children");
    for (pid_t child = 0; children >> child;) reapWhenEnded(child);
  }
}

}  // namespace vesko
