#include "platform/linux/linux_process_host.h"

#include <poll.h>

#include <charconv>

#include "base/unique_fd.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/linux_child.h"
#include "platform/linux/pidfd.h"
#include "platform/linux/process_identity.h"

namespace vesko {
namespace {

class ChildHandle : public ChildProcess {
 public:
  explicit ChildHandle(std::shared_ptr<LinuxChild> child) : child_(std::move(child)) {}
  ChildHandle(const ChildHandle&) = delete;
  ChildHandle& operator=(const ChildHandle&) = delete;
  ~ChildHandle() override { child_->abandon(); }

  pid_t pid() const override { return child_->pid(); }
  bool running() const override { return child_->running(); }
  std::expected<void, std::string> write(std::string_view line) override {
    return child_->write(line);
  }
  void closeInput() override { child_->closeInput(); }
  void signal(int number) override { child_->signal(number); }

 private:
  const std::shared_ptr<LinuxChild> child_;
};

class PidfdReference : public ProcessReference {
 public:
  explicit PidfdReference(UniqueFd pidfd) : pidfd_(std::move(pidfd)) {}

  // Readable once the process has ended, also while its parent has not reaped it.
  bool alive() const override {
    pollfd ended{.fd = pidfd_.get(), .events = POLLIN, .revents = 0};
    return ::poll(&ended, 1, 0) == 0;
  }
  bool signal(int number) override {
    return alive() && pidfd_send_signal(pidfd_.get(), number, nullptr, 0) == 0;
  }
  void notifyExit(std::move_only_function<void()> ended) override {
    exitWatch_ =
        FdWatch(pidfd_.get(), FdWatch::For::reading, [this, notify = std::move(ended)]() mutable {
          exitWatch_.reset();
          notify();
        });
  }

 private:
  UniqueFd pidfd_;
  FdWatch exitWatch_;
};

}  // namespace

std::expected<std::unique_ptr<ChildProcess>, std::string> LinuxProcessHost::launch(
    ProcessLaunch launch) {
  auto child = LinuxChild::launch(std::move(launch));
  if (!child) return std::unexpected(std::move(child.error()));
  return std::make_unique<ChildHandle>(std::move(*child));
}

std::vector<pid_t> LinuxProcessHost::processIds() {
  std::vector<pid_t> ids;
  std::error_code error;
  std::filesystem::directory_iterator entry("/proc", error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename();
    pid_t pid = 0;
    const char* end = name.data() + name.size();
    const auto [stop, failed] = std::from_chars(name.data(), end, pid);
    if (failed == std::errc() && stop == end) ids.push_back(pid);
  }
  return ids;
}

std::optional<std::filesystem::path> LinuxProcessHost::executablePath(pid_t pid) {
  return processExecutable(pid);
}

std::unique_ptr<ProcessReference> LinuxProcessHost::open(pid_t pid) {
  UniqueFd pidfd(pidfd_open(pid, 0));
  if (!pidfd) return nullptr;
  return std::make_unique<PidfdReference>(std::move(pidfd));
}

}  // namespace vesko
