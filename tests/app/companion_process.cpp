#include "companion_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "base/property_list.h"
#include "platform/linux/consent_store.h"
#include "platform/linux/pidfd.h"
#include "support/tls_client.h"

namespace vesko::test {
namespace {

namespace fs = std::filesystem;

constexpr int boundMs = 30'000;

bool readable(int fd) {
  pollfd ready{.fd = fd, .events = POLLIN, .revents = 0};
  return ::poll(&ready, 1, boundMs) == 1;
}

std::size_t occurrences(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

void place(const fs::path& from, const fs::path& to) {
  std::error_code error;
  fs::create_hard_link(from, to, error);
  if (error) fs::copy_file(from, to);
}

}  // namespace

// --- Processes ------------------------------------------------------------------------------

WatchedProcess::WatchedProcess(pid_t pid) : pid_(pid), pidfd_(pidfd_open(pid, 0)) {}

bool WatchedProcess::alive() const {
  pollfd ended{.fd = pidfd_.get(), .events = POLLIN, .revents = 0};
  return pidfd_ && ::poll(&ended, 1, 0) == 0;
}

bool WatchedProcess::waitForEnd() const {
  return !pidfd_ || readable(pidfd_.get());
}

void WatchedProcess::kill(int number) const {
  if (pidfd_) pidfd_send_signal(pidfd_.get(), number, nullptr, 0);
}

Process::Process(std::vector<std::string> words, const Variables& variables, const fs::path& output,
                 int kept)
    : output_(output) {
  std::vector<std::string> assignments;
  for (const char* name :
       {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name))
      assignments.push_back(std::string(name) + "=" + value);
  }
  for (const auto& [name, value] : variables) assignments.push_back(name + "=" + value);
  const auto pointers = [](std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
  };
  const auto arguments = pointers(words);
  const auto environment = pointers(assignments);
  const std::string out = output_.native() + ".out";
  const std::string err = output_.native() + ".err";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (kept >= 0) posix_spawn_file_actions_adddup2(&actions, kept, 9);
  if (::posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(),
                     environment.data()) != 0)
    pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  watched_.emplace(pid_);
}

Process::~Process() {
  if (pid_ < 0 || status_) return;
  std::vector<WatchedProcess> left;
  for (const pid_t child : children()) left.emplace_back(child);
  kill(SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  for (const WatchedProcess& child : left) child.kill(SIGKILL);
}

std::vector<pid_t> Process::children() const {
  std::ifstream file(fmt::format("/proc/{}/task/{}/children", pid_, pid_));
  std::vector<pid_t> pids;
  for (pid_t pid = 0; file >> pid;) pids.push_back(pid);
  return pids;
}

std::optional<int> Process::waitForExit() {
  if (pid_ < 0) return std::nullopt;
  if (!status_) {
    if (!watched_->waitForEnd()) return std::nullopt;
    int status = 0;
    ::waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return status_;
}

std::string Process::out() const {
  return support::contentOf(output_.native() + ".out");
}
std::string Process::err() const {
  return support::contentOf(output_.native() + ".err");
}

// --- The control server ---------------------------------------------------------------------

Answer ask(const Announcement& server, std::string_view method, std::string_view path,
           std::string_view body, std::optional<std::string> token) {
  TlsClient client(static_cast<std::uint16_t>(server.port));
  if (!client.connected() || client.peerFingerprint() != server.fingerprint) return {};
  client.send(
      fmt::format("{} {} HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer {}\r\n"
                  "Content-Length: {}\r\n\r\n{}",
                  method, path, token.value_or(server.token), body.size(), body));
  const std::string answer = client.readAll();
  const auto bodyStart = answer.find("\r\n\r\n");
  if (!answer.starts_with("HTTP/1.1 ") || bodyStart == std::string::npos) return {};
  return {std::atoi(answer.c_str() + 9), answer.substr(bodyStart + 4)};
}

// --- The daemon -----------------------------------------------------------------------------

bool DaemonLink::readMore() {
  if (ended_ || !socket_ || !readable(socket_.get())) return false;
  std::array<char, 65536> chunk;
  const ssize_t count = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
  if (count <= 0) {
    ended_ = true;
    return false;
  }
  rest_.append(chunk.data(), static_cast<std::size_t>(count));
  for (auto end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n')) {
    reports_.push_back(rest_.substr(0, end));
    rest_.erase(0, end + 1);
  }
  return true;
}

std::optional<std::string> DaemonLink::waitFor(std::string_view prefix) {
  do {
    while (examined_ < reports_.size()) {
      const std::string& report = reports_[examined_++];
      if (report.starts_with(prefix)) return report.substr(prefix.size());
    }
  } while (readMore());
  return std::nullopt;
}

bool DaemonLink::waitForEnd() {
  while (readMore()) {
  }
  return ended_;
}

std::optional<std::string> DaemonLink::variable(std::string_view name) const {
  const std::string prefix = fmt::format("env {}=", name);
  for (const std::string& report : reports_) {
    if (report.starts_with(prefix)) return report.substr(prefix.size());
  }
  return std::nullopt;
}

void DaemonLink::tell(std::string_view command) {
  const std::string line = std::string(command) + "\n";
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t count = ::send(socket_.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(count));
  }
}

bool DaemonLink::say(std::string_view line) {
  tell(fmt::format("say {}", line));
  return waitFor("said").has_value();
}

std::optional<Announcement> DaemonLink::announcement() {
  while (const auto line = waitFor("in ")) {
    auto announcement = json::decode<Announcement>(*line);
    if (announcement && announcement->veskokit == "control_server") return *announcement;
  }
  return std::nullopt;
}

// --- Installation ---------------------------------------------------------------------------

Installation::Installation(Helper helper) {
  static int serial = 0;
  // An identifier of its own: applications of the same identifier end each other's daemons.
  identifier_ = fmt::format("com.vesko.test.app{}-{}", ::getpid(), serial++);
  const PropertyList info(PropertyList::Dictionary{{"CFBundleIdentifier", identifier_},
                                                   {"CFBundleShortVersionString", "7.8.9"}});
  support::writeFile(contents() / "Info.plist", info.toXml());
  const fs::path built = VESKO_BUILT_BUNDLE;
  fs::create_directories(contents() / "MacOS");
  fs::create_directories(contents() / "Resources");
  place(built / "Contents/MacOS/VeskoCompanion", executable());
  for (const char* program : {"veskoctl", "vesko-privacy"})
    place(built / "Contents/Resources" / program, resource(program));
  fs::create_directories(contents() / "PlugIns");
  place(built / "Contents/PlugIns/VeskoPhotos.so", contents() / "PlugIns/VeskoPhotos.so");
  const auto daemon = contents() / "Resources/veskokit-daemon";
  switch (helper) {
    case Helper::reporting:
      place(VESKO_REPORTING_DAEMON, daemon);
      break;
    case Helper::real:
      place(built / "Contents/Resources/veskokit-daemon", daemon);
      break;
    case Helper::notExecutable:
      support::writeFile(daemon, "no program");
      break;
    case Helper::missing:
      break;
  }
  fs::create_directories(home());
}

fs::path Installation::home(std::string_view name) const {
  return root_ / name;
}

Directories Installation::directories(std::string_view home) const {
  return Directories::under(this->home(home), identifier_);
}

void Installation::grantConsents() const {
  ConsentStore store(consents());
  for (const Consent consent : {Consent::accessibility, Consent::screenRecording})
    store.set(consent, ConsentState::granted).value();
}

std::string Installation::socketPath(std::string_view home) const {
  return root_ / fmt::format("{}.socket", home);
}

std::unique_ptr<Process> Installation::start(const Variables& variables, std::string_view home) {
  if (!listeners_.contains(home)) {
    UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = socketPath(home);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 16) != 0)
      return nullptr;
    listeners_.emplace(home, std::move(listener));
  }
  Variables all{{"HOME", this->home(home)}, {"VESKO_DAEMON_SOCKET", socketPath(home)}};
  for (const auto& [name, value] : variables) all.insert_or_assign(name, value);
  return std::make_unique<Process>(std::vector<std::string>{executable()}, all,
                                   root_ / fmt::format("run{}", runs_++));
}

DaemonLink Installation::nextDaemon(std::string_view home) {
  const UniqueFd& listener = listeners_.find(home)->second;
  if (!readable(listener.get())) return DaemonLink(UniqueFd());
  return DaemonLink(UniqueFd(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
}

std::string Installation::log(std::string_view home) const {
  return support::contentOf(directories(home).logs / "app.log");
}

bool Installation::waitForLog(std::string_view text, std::size_t times, std::string_view home) {
  const UniqueFd changes(::inotify_init1(IN_CLOEXEC));
  const auto folder = directories(home).logs;
  // So that there is something to watch; the application finds it as it would have made it.
  fs::create_directories(folder);
  ::inotify_add_watch(changes.get(), folder.c_str(), IN_CREATE | IN_MODIFY | IN_MOVED_TO);
  std::array<char, 4096> ignored;
  while (occurrences(log(home), text) < times) {
    if (!readable(changes.get())) return false;
    if (::read(changes.get(), ignored.data(), ignored.size()) <= 0) return false;
  }
  return true;
}

pid_t Installation::lastDaemon() const {
  constexpr std::string_view marker = "daemon run() ok pid=";
  const std::string text = log();
  const auto at = text.rfind(marker);
  return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + marker.size());
}

}  // namespace vesko::test
