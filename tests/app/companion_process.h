// The application as its user runs it: the built executable in a bundle of the test's own, with a
// HOME of its own, seen through its files, its server and its daemon. Every wait is for an event
// and bounded by half a minute. One thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "base/directories.h"
#include "base/json_record.h"
#include "base/unique_fd.h"
#include "support/temporary_directory.h"

namespace vesko::test {

using Variables = std::map<std::string, std::string>;

/// A process by its identity, whoever started it.
class WatchedProcess {
 public:
  explicit WatchedProcess(pid_t pid);
  pid_t pid() const { return pid_; }
  bool alive() const;
  /// False when it has not ended within the bound.
  bool waitForEnd() const;
  void kill(int number) const;

 private:
  pid_t pid_;
  UniqueFd pidfd_;
};

/// A child of the test. Destroying it kills what still runs, the child's own children included.
class Process {
 public:
  /// Standard output and error go to `output` + ".out" and ".err". The child inherits of this
  /// process's variables only PATH and what sanitizers need; `kept` stays open as descriptor 9.
  Process(std::vector<std::string> words, const Variables& variables,
          const std::filesystem::path& output, int kept = -1);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t pid() const { return pid_; }
  bool running() const { return watched_->alive(); }
  void kill(int number) const { watched_->kill(number); }
  std::vector<pid_t> children() const;
  /// The exit status, 128 + number for a signal; nothing when it has not ended within the bound.
  std::optional<int> waitForExit();
  std::string out() const;
  std::string err() const;

 private:
  std::filesystem::path output_;
  pid_t pid_ = -1;
  std::optional<WatchedProcess> watched_;
  std::optional<int> status_;
};

/// What the control server's announcement says.
struct Announcement {
  std::string veskokit;
  std::int64_t port = 0;
  std::string token;
  std::string fingerprint;

  static constexpr auto jsonFields() {
    using T = Announcement;
    return std::tuple{json::field("veskokit", &T::veskokit), json::field("port", &T::port),
                      json::field("token", &T::token), json::field("cert_sha256", &T::fingerprint)};
  }
};

struct Answer {
  int status = 0;  ///< 0 when there was none
  std::string body;
};

/// One request, on a connection whose certificate is the announced one.
Answer ask(const Announcement& server, std::string_view method, std::string_view path,
           std::string_view body = {}, std::optional<std::string> token = std::nullopt);

/// The test's end of one reporting daemon.
class DaemonLink {
 public:
  explicit DaemonLink(UniqueFd socket) : socket_(std::move(socket)) {}
  explicit operator bool() const { return bool(socket_); }

  /// Reads reports up to the one that starts with `prefix` and returns what stands behind it;
  /// nothing when the daemon ends before or the bound passes.
  std::optional<std::string> waitFor(std::string_view prefix);
  /// No report comes any more: the daemon has ended.
  bool waitForEnd();
  /// Everything reported so far.
  const std::vector<std::string>& reports() const { return reports_; }
  std::optional<std::string> variable(std::string_view name) const;

  void tell(std::string_view command);
  /// Has the daemon write a line and waits until it is written.
  bool say(std::string_view line);
  /// Reads up to the announcement of the control server.
  std::optional<Announcement> announcement();

 private:
  bool readMore();

  UniqueFd socket_;
  std::string rest_;
  std::vector<std::string> reports_;
  std::size_t examined_ = 0;
  bool ended_ = false;
};

/// A bundle and a user's home folder.
class Installation {
 public:
  enum class Helper { reporting, real, missing, notExecutable };

  explicit Installation(Helper helper = Helper::reporting);

  const std::string& identifier() const { return identifier_; }
  std::filesystem::path home(std::string_view name = "home") const;
  Directories directories(std::string_view home = "home") const;
  std::filesystem::path executable() const { return contents() / "MacOS/VeskoCompanion"; }
  std::filesystem::path resource(std::string_view name) const {
    return contents() / "Resources" / name;
  }
  std::filesystem::path veskoctl() const { return resource("veskoctl"); }

  /// Where the user's consents are kept.
  std::filesystem::path consents() const { return directories().state / "consents.plist"; }
  /// Grants both consents that the tools ask for.
  void grantConsents() const;

  /// Starts the application. Its daemons, when they report, arrive at nextDaemon().
  std::unique_ptr<Process> start(const Variables& variables = {}, std::string_view home = "home");
  /// An unset link when none comes within the bound.
  DaemonLink nextDaemon(std::string_view home = "home");

  /// False when the text is not `times` times in the log within the bound.
  bool waitForLog(std::string_view text, std::size_t times = 1, std::string_view home = "home");
  std::string log(std::string_view home = "home") const;
  /// The process id in the log's last line about a started daemon.
  pid_t lastDaemon() const;

 private:
  std::filesystem::path contents() const { return root_ / "Vesko Companion.app/Contents"; }
  std::string socketPath(std::string_view home) const;

  support::TemporaryDirectory root_;
  std::string identifier_;
  std::map<std::string, UniqueFd, std::less<>> listeners_;
  int runs_ = 0;
};

}  // namespace vesko::test
