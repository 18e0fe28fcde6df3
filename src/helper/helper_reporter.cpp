#include "helper/helper_reporter.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace vesko {
namespace {

struct PresenceReport {
  std::string state;
  std::optional<std::string> deviceId;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("state", &PresenceReport::state),
                      json::field("deviceId", &PresenceReport::deviceId)};
  }
};

/// Time that a status line may wait for a companion that does not read.
constexpr int statusPatienceMs = 2000;
/// Well below what a pipe takes in one piece.
constexpr std::size_t maxLogBytes = 2000;

std::string printable(std::string_view text) {
  std::string result;
  for (const char c : text.substr(0, maxLogBytes)) result += c >= ' ' && c <= '~' ? c : '?';
  return result;
}

}  // namespace

void HelperReporter::connecting() {
  status("[veskokit-status] ", json::encode(PresenceReport{"connecting", std::nullopt}));
}

void HelperReporter::connected(std::string_view deviceId) {
  status("[veskokit-status] ", json::encode(PresenceReport{"connected", std::string(deviceId)}));
}

void HelperReporter::import(const AssistantImportStatus& report) {
  status("[veskokit:assistant-import] ", json::encode(report, json::Writer::Escaping::ascii));
}

void HelperReporter::history(const HistoryExportStatus& report) {
  status("[veskokit:history] ", json::encode(report, json::Writer::Escaping::ascii));
}

void HelperReporter::log(std::string_view text) {
  writeLine(logFd_, printable(text), 0);
}

void HelperReporter::status(std::string_view prefix, std::optional<std::string> json) {
  if (json) writeLine(statusFd_, std::string(prefix) + *json, statusPatienceMs);
}

void HelperReporter::writeLine(int fd, std::string line, int patienceMs) {
  line += '\n';
  const MutexLock lock(mutex_);
  pollfd room{.fd = fd, .events = POLLOUT, .revents = 0};
  int ready = 0;
  do {
    ready = ::poll(&room, 1, patienceMs);
  } while (ready < 0 && errno == EINTR);
  if (ready <= 0) return;
  // A reader that is gone ends the helper by other ways; there is nobody to tell.
  while (::write(fd, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

}  // namespace vesko
