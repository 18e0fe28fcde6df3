#include "state/app_log.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/file.h"

namespace vesko {
namespace {

// As much of it as the log takes, without a part of a character at its end.
std::string_view beginning(std::string_view message) {
  if (message.size() <= AppLog::maxMessageBytes) return message;
  std::size_t end = AppLog::maxMessageBytes;
  while (end > 0 && (static_cast<unsigned char>(message[end]) & 0xC0) == 0x80) --end;
  return message.substr(0, end);
}

}  // namespace

AppLog::AppLog(std::filesystem::path directory, std::function<std::time_t()> clock)
    : directory_(std::move(directory)), file_(directory_ / "app.log"), clock_(std::move(clock)) {}

bool AppLog::open() {
  if (logHandle_) return true;
  if (!createDirectories(directory_, 0700)) return false;
  logHandle_.reset(::open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (logHandle_) ::lseek(logHandle_.get(), 0, SEEK_END);
  return static_cast<bool>(logHandle_);
}

void AppLog::write(std::string_view message) {
  if (!open()) return;
  const std::time_t now = clock_();
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  std::string line = fmt::format("[{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000] ", utc.tm_year + 1900,
                                 utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  const auto shown = beginning(message);
  line += shown;
  if (shown.size() < message.size()) line += fmt::format(" ... ({} bytes)", message.size());
  std::ranges::replace(line, '\n', ' ');
  line += '\n';

  const off_t start = ::lseek(logHandle_.get(), 0, SEEK_CUR);
  ssize_t written = 0;
  do {
    written = ::write(logHandle_.get(), line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  if (written != static_cast<ssize_t>(line.size())) {
    // A full disk: take back the torn line, and find the file anew for the next one.
    if (written > 0 && start >= 0) std::ignore = ::ftruncate(logHandle_.get(), start);
    logHandle_.reset();
    return;
  }
  const off_t offset = ::lseek(logHandle_.get(), 0, SEEK_CUR);
  if (offset > static_cast<off_t>(logMaxBytes)) rotate();
}

void AppLog::rotate() {
  logHandle_.reset();
  auto previous = file_;
  previous += ".1";
  std::error_code ignored;
  std::filesystem::remove(previous, ignored);
  std::filesystem::rename(file_, previous, ignored);
}

}  // namespace vesko
