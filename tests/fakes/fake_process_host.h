// Processes in memory: children that a test drives, and a table of others. Main thread.
#pragma once

#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/main_loop.h"
#include "platform/process_host.h"

namespace vesko::fakes {

class FakeProcessHost : public ProcessHost {
 public:
  /// One process of the table: a launched child or a bystander.
  struct Process {
    pid_t pid = 0;
    std::filesystem::path executable;
    Environment environment;
    bool alive = true;
    bool ignoresTerminate = false;
    bool inputOpen = true;
    std::string writeFailure;  ///< when set, writes fail with it
    std::string input;         ///< what was written to the child
    std::vector<int> signals;
    ProcessLaunch handlers;
    bool handlersInstalled = false;
    std::vector<Closure> exitNotices;

    /// The child writes; nothing happens once its owner has let go of it.
    void emit(std::string_view output);
    void tellExit();
  };

  explicit FakeProcessHost(MainLoop& loop) : loop_(loop) {}

  std::expected<std::unique_ptr<ChildProcess>, std::string> launch(ProcessLaunch launch) override;
  std::vector<pid_t> processIds() override;
  std::optional<std::filesystem::path> executablePath(pid_t pid) override;
  std::unique_ptr<ProcessReference> open(pid_t pid) override;

  /// Ends a process the way the kernel would report it.
  void exit(Process& process, ProcessExit how);
  std::shared_ptr<Process> add(pid_t pid, std::filesystem::path executable);

  /// Every child launched so far, in order.
  std::vector<std::shared_ptr<Process>> children;
  /// When set, launches fail with it.
  std::string launchFailure;
  /// open() finds nothing, as without a free descriptor.
  bool openFails = false;

 private:
  class Child;
  class Reference;

  MainLoop& loop_;
  pid_t nextPid_ = 1000;
  std::map<pid_t, std::shared_ptr<Process>> table_;
};

}  // namespace vesko::fakes
