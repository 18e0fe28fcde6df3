// Child processes with piped standard streams, and the processes of this machine.
#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

using Environment = std::map<std::string, std::string, std::less<>>;

struct ProcessExit {
  bool signalled = false;
  int code = 0;  ///< exit status, or the signal's number; -1 when the system does not tell
};

struct ProcessLaunch {
  std::filesystem::path executable;
  Environment environment;
  std::vector<std::string> arguments{};  ///< without the program's name
  /// Bytes of the child's standard output and error, as one read delivered them. Main thread.
  /// Both handlers may destroy the ChildProcess.
  std::move_only_function<void(std::string_view chunk)> onOutput;
  /// The child has ended and has been reaped; what it had written before was delivered. At most
  /// once, main thread.
  std::move_only_function<void(ProcessExit)> onExit;
};

/// A started child. Main thread. Destroying it drops both handlers and closes the pipes; a child
/// that still runs is left alone and is reaped when it ends.
class ChildProcess {
 public:
  virtual ~ChildProcess() = default;
  virtual pid_t pid() const = 0;
  virtual bool running() const = 0;

  /// Hands the whole line to the pipe and never blocks: what the pipe cannot take at once is kept
  /// up to a limit and follows as the child reads. The error is a system message; nothing of a
  /// refused line is written.
  virtual std::expected<void, std::string> write(std::string_view line) = 0;
  /// No more lines are taken; the pipe closes once the child has read what was kept.
  virtual void closeInput() = 0;
  /// Does nothing once the child has ended.
  virtual void signal(int number) = 0;
};

/// One process, whoever started it, held by identity: a later process with the same id is never
/// mistaken for it.
class ProcessReference {
 public:
  virtual ~ProcessReference() = default;
  virtual bool alive() const = 0;
  /// False when the process is gone or may not be signalled.
  virtual bool signal(int number) = 0;
  /// Calls `ended` once when the process has ended, on the main thread and never before returning;
  /// not after this reference was destroyed.
  virtual void notifyExit(std::move_only_function<void()> ended) = 0;
};

class ProcessHost {
 public:
  virtual ~ProcessHost() = default;
  virtual std::expected<std::unique_ptr<ChildProcess>, std::string> launch(
      ProcessLaunch launch) = 0;

  virtual std::vector<pid_t> processIds() = 0;
  /// Ids are reused: to act on what a path says, open() first, ask for the path, and see that the
  /// reference is alive() still.
  virtual std::optional<std::filesystem::path> executablePath(pid_t pid) = 0;
  /// Null when there is no such process.
  virtual std::unique_ptr<ProcessReference> open(pid_t pid) = 0;
};

}  // namespace vesko
