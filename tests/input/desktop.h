// Real programs on the test's own display, and waiting for what they report.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace vesko::test {

/// A child whose standard output is read line by line; killed and reaped with this object.
class Program {
 public:
  explicit Program(std::vector<std::string> command, const std::string& input = {});
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  pid_t pid() const { return pid_; }

  /// The next line that `wanted` accepts, others being skipped; nothing once the bound passed or
  /// the output ended. `lastLine()` is then the last one skipped.
  std::optional<std::string> waitFor(const std::function<bool(std::string_view)>& wanted,
                                     std::chrono::seconds bound = std::chrono::seconds(30));
  bool waitForLine(std::string_view line) {
    return waitFor([line](std::string_view l) { return l == line; }).has_value();
  }
  bool waitReady() { return waitForLine("ready"); }
  const std::string& lastLine() const { return lastLine_; }

  /// Everything up to the end of the output.
  std::string readAll(std::chrono::seconds bound = std::chrono::seconds(30));
  /// The exit status once it ended, as waitpid tells.
  int wait();
  void signal(int number) const;

 private:
  bool readMore(std::chrono::steady_clock::time_point deadline);

  pid_t pid_ = -1;
  UniqueFd output_;
  std::string buffer_;
  std::string lastLine_;
};

/// Runs a command to its end; its standard output.
std::string outputOf(std::vector<std::string> command, const std::string& input = {});

/// True as soon as `condition` holds; false when it does not within the bound. For conditions that
/// nothing reports, as a file's contents.
bool eventually(const std::function<bool()>& condition,
                std::chrono::seconds bound = std::chrono::seconds(30));

/// As the test programs escape it.
std::string escaped(std::string_view text);

}  // namespace vesko::test
