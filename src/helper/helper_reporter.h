// What the helper tells the companion: status lines on standard output, log text on standard
// error.
//
// The companion reads both through one pipe, drops a chunk that ends inside a UTF-8 character and
// looks for a few phrases in plain text. So every line is ASCII, goes out in one write, and log
// text comes from this program's own sentences: nothing a local client sends is ever logged.
// Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/mutex.h"
#include "state/status_records.h"

namespace vesko {

class HelperReporter {
 public:
  /// Borrows the descriptors.
  HelperReporter(int statusFd, int logFd) : statusFd_(statusFd), logFd_(logFd) {}

  void connecting();
  void connected(std::string_view deviceId);
  void import(const AssistantImportStatus& report);
  void history(const HistoryExportStatus& report);

  /// Dropped when the reader has left no room in the pipe: a log never holds the helper up.
  void log(std::string_view text);

 private:
  void status(std::string_view prefix, std::optional<std::string> json);
  void writeLine(int fd, std::string line, int patienceMs) VESKO_EXCLUDES(mutex_);

  int statusFd_;
  int logFd_;
  Mutex mutex_;
};

}  // namespace vesko
