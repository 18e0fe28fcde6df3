// A child process with piped standard streams, driven by the main context.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "base/main_thread.h"
#include "base/unique_fd.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/process_host.h"

namespace vesko {

/// Shared by the caller's handle and by the watch for the child's end, which keeps it alive until
/// the child is reaped. Main thread.
class LinuxChild : public std::enable_shared_from_this<LinuxChild> {
 public:
  /// What the pipe has not taken yet may grow to this; a line beyond it is refused.
  static constexpr std::size_t maxPendingInput = 16 << 20;

  static std::expected<std::shared_ptr<LinuxChild>, std::string> launch(ProcessLaunch launch);

  pid_t pid() const { return pid_; }
  bool running() const { return bool(pidfd_); }
  std::expected<void, std::string> write(std::string_view line);
  void closeInput();
  void signal(int number);
  /// Drops the handlers and the pipes; the child is still reaped.
  void abandon();

 private:
  struct Streams {
    UniqueFd input;   ///< write end of its standard input
    UniqueFd output;  ///< read end of its standard output and error
  };

  LinuxChild(ProcessLaunch launch, pid_t pid, UniqueFd pidfd, Streams streams);
  void watch();

  void readOutput();
  void deliverRest();
  bool deliver(std::string_view chunk);
  void closeOutput();

  bool pushInput(std::string_view& bytes);
  void flushInput();
  void failInput(int error);

  void reap();

  const pid_t pid_;
  UniqueFd pidfd_;  ///< empty once the child has been reaped
  UniqueFd input_;
  UniqueFd output_;
  // Destroyed before the descriptors that they watch.
  FdWatch exitWatch_;
  FdWatch inputWatch_;
  FdWatch outputWatch_;

  std::move_only_function<void(std::string_view)> onOutput_;
  std::move_only_function<void(ProcessExit)> onExit_;
  bool abandoned_ = false;

  std::string pending_;
  std::size_t pendingTaken_ = 0;  ///< bytes at the front of pending_ that the pipe has taken
  bool closing_ = false;          ///< close the input once nothing is pending
  int inputError_ = 0;            ///< why nothing more can be written
};

}  // namespace vesko
