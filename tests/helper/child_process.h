// The helper and veskoctl as the tests run them: real processes on real pipes.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace vesko {

using Variables = std::map<std::string, std::string>;

/// Waits for the end of a process that need not be a child; false after the bound.
bool waitForEnd(pid_t pid);

struct CommandResult {
  int exit = -1;  ///< 128 + number for a signal
  std::string out;
  std::string err;
};

/// The one that the build put into the bundle.
std::filesystem::path veskoctlPath();

/// Runs veskoctl, or a copy of it, to its end.
CommandResult runVeskoctlProcess(const std::vector<std::string>& words, const Variables& variables,
                                 std::string_view input = {},
                                 const std::filesystem::path& executable = veskoctlPath());

/// One run of the helper. What it writes to its standard output and error arrives here as it was
/// written, one message a write.
class HelperProcess {
 public:
  struct Options {
    std::filesystem::path stateDirectory;
    Variables variables{};
    std::optional<uid_t> user{};
    /// Between this process and the helper stands another, whose number is parent().
    bool withParentOfItsOwn = false;
  };

  explicit HelperProcess(const Options& options);
  /// Kills what still runs.
  ~HelperProcess();

  pid_t pid() const { return pid_; }
  pid_t parent() const { return parent_; }
  void send(std::string_view line);
  /// How many of the bytes went out, for text that is not a whole line.
  std::size_t sendRaw(std::string_view bytes);
  void closeInput() { input_.reset(); }
  /// The next write that contains `text`; empty when the helper ends or the bound passes.
  std::string waitFor(std::string_view text);
  void waitUntilServing();
  /// The exit status of a direct child (128 + number for a signal); all output is collected.
  int waitForExit();
  const std::vector<std::string>& writes() const { return writes_; }
  std::string allOutput() const;

 private:
  /// False at the end of the output.
  bool readWrite();

  pid_t pid_ = -1;
  pid_t parent_ = -1;
  bool reaped_ = false;
  UniqueFd input_;
  UniqueFd output_;
  std::vector<std::string> writes_;
  std::size_t examined_ = 0;
};

}  // namespace vesko
