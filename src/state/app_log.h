// The application's log file: one line a message, one old generation kept. Main thread.
//
// Logging never fails into its caller: what cannot be written is lost, and writing goes on as soon
// as the file can be opened and written again.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string_view>

#include <ctime>

#include "base/unique_fd.h"

namespace vesko {

class AppLog {
 public:
  static constexpr std::size_t logMaxBytes = 2'097'152;
  /// A longer message is shortened, so that one does not push everything else out of the log.
  static constexpr std::size_t maxMessageBytes = 65'536;

  /// `directory` is created on first use. `clock` tells the wall-clock time.
  explicit AppLog(
      std::filesystem::path directory,
      std::function<std::time_t()> clock = [] { return std::time(nullptr); });

  /// Appends "[date] message" and a newline. The date is UTC: 2026-01-31 23:59:59 +0000. Line feeds
  /// within the message become spaces: some texts come from other processes.
  void write(std::string_view message);

 private:
  bool open();
  void rotate();

  std::filesystem::path directory_;
  std::filesystem::path file_;
  std::function<std::time_t()> clock_;
  UniqueFd logHandle_;
};

}  // namespace vesko
