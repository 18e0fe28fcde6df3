// What the helper tells the companion: status lines on standard output, log text on standard
// error.
//
// The companion reads both through one pipe, drops a chunk that ends inside a UTF-8 character and
// looks for a few phrases in plain text. So every line is ASCII, goes out in one write, and log
// text comes from this program's own sentences: nothing a local client sends is ever logged.
// Any thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "base/json_record.h"
#include "base/mutex.h"

namespace vesko {

/// The companion's record of an assistant import, as this helper fills it.
struct ImportReport {
  std::string state;
  std::string source;
  std::int64_t pagesSent = 0, pagesTotal = 0, files = 0, bytes = 0, cronJobs = 0, redactions = 0,
               skippedOversized = 0;
  bool detectionComplete = false;
  std::vector<json::Value> detectedSources;
  std::optional<std::string> error;

  static constexpr auto jsonFields() {
    using R = ImportReport;
    return std::tuple{json::field("state", &R::state),
                      json::field("source", &R::source),
                      json::field("pagesSent", &R::pagesSent),
                      json::field("pagesTotal", &R::pagesTotal),
                      json::field("files", &R::files),
                      json::field("bytes", &R::bytes),
                      json::field("cronJobs", &R::cronJobs),
                      json::field("redactions", &R::redactions),
                      json::field("skippedOversized", &R::skippedOversized),
                      json::field("detectionComplete", &R::detectionComplete),
                      json::field("detectedSources", &R::detectedSources),
                      json::field("error", &R::error)};
  }
};

/// The companion's record of a history export, as this helper fills it.
struct HistoryReport {
  std::string state;
  std::int64_t pagesSent = 0, pagesTotal = 0, conversations = 0, messages = 0, chunksQueued = 0,
               ignoredOldMessages = 0;
  std::optional<std::string> error;

  static constexpr auto jsonFields() {
    using R = HistoryReport;
    return std::tuple{json::field("state", &R::state),
                      json::field("pagesSent", &R::pagesSent),
                      json::field("pagesTotal", &R::pagesTotal),
                      json::field("conversations", &R::conversations),
                      json::field("messages", &R::messages),
                      json::field("chunksQueued", &R::chunksQueued),
                      json::field("ignoredOldMessages", &R::ignoredOldMessages),
                      json::field("error", &R::error)};
  }
};

class HelperReporter {
 public:
  /// Borrows the descriptors.
  HelperReporter(int statusFd, int logFd) : statusFd_(statusFd), logFd_(logFd) {}

  void connecting();
  void connected(std::string_view deviceId);
  void import(const ImportReport& report);
  void history(const HistoryReport& report);

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
