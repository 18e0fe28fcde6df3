#include "fakes/fake_process_host.h"

#include <utility>

namespace vesko::fakes {

using Process = FakeProcessHost::Process;

void Process::emit(std::string_view output) {
  if (handlersInstalled && handlers.onOutput) handlers.onOutput(output);
}

void Process::tellExit() {
  for (auto& notice : std::exchange(exitNotices, {})) notice();
}

class FakeProcessHost::Reference : public ProcessReference {
 public:
  Reference(FakeProcessHost& host, std::shared_ptr<Process> process)
      : host_(host), process_(std::move(process)) {}

  bool alive() const override { return process_->alive; }
  bool signal(int number) override {
    if (!process_->alive) return false;
    process_->signals.push_back(number);
    const bool dies = number == SIGKILL || (number == SIGTERM && !process_->ignoresTerminate);
    if (dies) host_.exit(*process_, {.signalled = true, .code = number});
    return true;
  }
  void notifyExit(Closure ended) override {
    notice_ = std::make_shared<Closure>(std::move(ended));
    process_->exitNotices.emplace_back([weak = std::weak_ptr(notice_)] {
      if (const auto notice = weak.lock()) std::exchange(*notice, nullptr)();
    });
    if (!process_->alive) host_.loop_.post([process = process_] { process->tellExit(); });
  }

 private:
  FakeProcessHost& host_;
  std::shared_ptr<Process> process_;
  std::shared_ptr<Closure> notice_;
};

class FakeProcessHost::Child : public ChildProcess {
 public:
  Child(FakeProcessHost& host, std::shared_ptr<Process> process)
      : host_(host), process_(std::move(process)) {}
  ~Child() override {
    process_->handlersInstalled = false;
    process_->inputOpen = false;
  }

  pid_t pid() const override { return process_->pid; }
  bool running() const override { return process_->alive; }
  std::expected<void, std::string> write(std::string_view line) override {
    if (!process_->writeFailure.empty()) return std::unexpected(process_->writeFailure);
    process_->input += line;
    return {};
  }
  void closeInput() override { process_->inputOpen = false; }
  void signal(int number) override { Reference(host_, process_).signal(number); }

 private:
  FakeProcessHost& host_;
  std::shared_ptr<Process> process_;
};

std::expected<std::unique_ptr<ChildProcess>, std::string> FakeProcessHost::launch(
    ProcessLaunch launch) {
  if (!launchFailure.empty()) return std::unexpected(launchFailure);
  auto process = add(nextPid_++, launch.executable);
  process->environment = launch.environment;
  process->handlers = std::move(launch);
  process->handlersInstalled = true;
  children.push_back(process);
  return std::make_unique<Child>(*this, process);
}

std::vector<pid_t> FakeProcessHost::processIds() {
  std::vector<pid_t> ids;
  for (const auto& [pid, process] : table_) {
    if (process->alive) ids.push_back(pid);
  }
  return ids;
}

std::optional<std::filesystem::path> FakeProcessHost::executablePath(pid_t pid) {
  const auto found = table_.find(pid);
  if (found == table_.end()) return std::nullopt;
  return found->second->executable;
}

std::unique_ptr<ProcessReference> FakeProcessHost::open(pid_t pid) {
  const auto found = table_.find(pid);
  if (openFails || found == table_.end() || !found->second->alive) return nullptr;
  return std::make_unique<Reference>(*this, found->second);
}

void FakeProcessHost::exit(Process& process, ProcessExit how) {
  process.alive = false;
  const auto keep = table_.at(process.pid);
  loop_.post([keep, how] {
    if (keep->handlersInstalled && keep->handlers.onExit) {
      keep->handlersInstalled = false;
      keep->handlers.onExit(how);
    }
    keep->tellExit();
  });
}

std::shared_ptr<Process> FakeProcessHost::add(pid_t pid, std::filesystem::path executable) {
  auto process = std::make_shared<Process>();
  process->pid = pid;
  process->executable = std::move(executable);
  table_[pid] = process;
  return process;
}

}  // namespace vesko::fakes
