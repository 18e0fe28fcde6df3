#include "helper/doctor/check.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "base/unique_fd.h"
#include "base/utf8.h"

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t maxTextCharacters = 400;

struct Findings {
  std::vector<Finding> list;
  static constexpr auto jsonFields() { return std::tuple{json::field("list", &Findings::list)}; }
};

struct Running {
  pid_t pid = -1;
  UniqueFd output;
  std::string text{};
};

/// Some of it comes from elsewhere: window titles, log lines, names of files.
std::string fitForTerminal(std::string text) {
  for (char& c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) c = ' ';
  }
  if (!isValidUtf8(text))
    std::ranges::replace_if(text, [](char c) { return (c & 0x80) != 0; }, '?');
  // The controls of the second half of ISO 6429, U+0080 to U+009F; some terminals obey them.
  for (std::size_t i = 1; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (text[i - 1] == '\xC2' && byte < 0xA0) text.replace(i - 1, 2, "  ");
  }
  const auto shown = utf8Prefix(text, maxTextCharacters);
  return shown.size() < text.size() ? std::string(shown) + "..." : text;
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

[[noreturn]] void runInChild(const Check& check, int output, milliseconds bound) {
  // Should the parent be killed meanwhile, this ends all the same.
  ::signal(SIGALRM, SIG_DFL);
  const auto limit = bound + std::chrono::seconds(1);
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(limit.count() / 1000);
  timer.it_value.tv_usec = static_cast<suseconds_t>(limit.count() % 1000 * 1000);
  ::setitimer(ITIMER_REAL, &timer, nullptr);
  Findings findings{check.run()};
  for (Finding& finding : findings.list) {
    finding.summary = fitForTerminal(std::move(finding.summary));
    finding.advice = fitForTerminal(std::move(finding.advice));
  }
  writeAll(output, json::encode(findings).value_or(""));
  ::_exit(0);
}

std::optional<Running> begin(const Check& check, milliseconds bound) {
  int ends[2];
  if (::pipe(ends) != 0) return std::nullopt;
  UniqueFd read(ends[0]);
  const UniqueFd write(ends[1]);
  ::fcntl(read.get(), F_SETFD, FD_CLOEXEC);
  ::fcntl(write.get(), F_SETFD, FD_CLOEXEC);
  const pid_t pid = ::fork();
  if (pid < 0) return std::nullopt;
  if (pid == 0) runInChild(check, write.get(), bound);
  return Running{.pid = pid, .output = std::move(read)};
}

/// What the child wrote until it ended; false when it has not by the deadline.
bool collect(Running& running, Clock::time_point deadline) {
  std::array<char, 4096> chunk;
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    pollfd ready{.fd = running.output.get(), .events = POLLIN, .revents = 0};
    const int count = ::poll(&ready, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    const ssize_t size = ::read(running.output.get(), chunk.data(), chunk.size());
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return true;
    running.text.append(chunk.data(), static_cast<std::size_t>(size));
  }
}

std::vector<Finding> end(Running& running, const Check& check, Clock::time_point deadline,
                         milliseconds bound) {
  if (!collect(running, deadline)) {
    ::kill(running.pid, SIGKILL);
    // Not waited for: what hangs within the kernel outlives even that.
    ::waitpid(running.pid, nullptr, WNOHANG);
    return {{.id = check.id,
             .status = check.silent,
             .summary = fmt::format("does not answer within {:g} s",
                                    std::chrono::duration<double>(bound).count()),
             .advice = check.silentAdvice}};
  }
  int status = 0;
  while (::waitpid(running.pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (auto findings = json::decode<Findings>(running.text)) return std::move(findings->list);
  return {{.id = check.id,
           .status = CheckStatus::unknown,
           .summary = fmt::format("the check itself failed ({} {})",
                                  WIFSIGNALED(status) ? "signal" : "exit",
                                  WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status))}};
}

}  // namespace

std::vector<Finding> runChecks(const std::vector<Check>& checks, milliseconds bound) {
  const auto deadline = Clock::now() + bound;
  std::vector<std::optional<Running>> running;
  for (const Check& check : checks) running.push_back(begin(check, bound));
  std::vector<Finding> findings;
  for (std::size_t i = 0; i < checks.size(); ++i) {
    if (!running[i]) {
      findings.push_back(
          {.id = checks[i].id, .summary = "no process can be started to look at it"});
      continue;
    }
    auto more = end(*running[i], checks[i], deadline, bound);
    findings.insert(findings.end(), std::make_move_iterator(more.begin()),
                    std::make_move_iterator(more.end()));
  }
  return findings;
}

}  // namespace vesko
