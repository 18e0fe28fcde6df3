#include "helper/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace vesko {
namespace {

constexpr int boundMs = 30000;

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

struct Stream {
  UniqueFd read;
  UniqueFd write;
};

Stream makePipe() {
  int ends[2];
  require(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// The environment of a child: of ours only what sanitizers need.
std::vector<std::string> environmentOf(const Variables& variables) {
  std::vector<std::string> result;
  for (const char* kept : {"PATH", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
    if (const char* value = std::getenv(kept)) result.push_back(std::string(kept) + "=" + value);
  }
  for (const auto& [name, value] : variables) result.push_back(name + "=" + value);
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

/// In the child: nothing that could take a lock another thread held at the fork.
[[noreturn]] void execute(int input, int output, int error, std::optional<uid_t> user,
                          char* const* words, char* const* environment) {
  if (::dup2(input, 0) < 0 || ::dup2(output, 1) < 0 || ::dup2(error, 2) < 0) ::_exit(126);
  if (user && (::setgid(*user) != 0 || ::setuid(*user) != 0)) ::_exit(126);
  ::execve(words[0], words, environment);
  ::_exit(127);
}

int statusOf(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

bool waitForEnd(pid_t pid) {
  const UniqueFd watch(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (!watch) return errno == ESRCH;
  pollfd ready{.fd = watch.get(), .events = POLLIN, .revents = 0};
  return ::poll(&ready, 1, boundMs) == 1;
}

std::filesystem::path veskoctlPath() {
  return VESKOCTL_PATH;
}

CommandResult runVeskoctlProcess(const std::vector<std::string>& arguments,
                                 const Variables& variables, std::string_view input,
                                 const std::filesystem::path& executable) {
  std::vector<std::string> words{executable.native()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = environmentOf(variables);
  const auto argv = pointers(words);
  const auto envp = pointers(environment);
  Stream in = makePipe();
  Stream out = makePipe();
  Stream err = makePipe();
  const pid_t pid = ::fork();
  if (pid == 0)
    execute(in.read.get(), out.write.get(), err.write.get(), {}, argv.data(), envp.data());
  require(pid > 0, "fork");
  in.read.reset();
  out.write.reset();
  err.write.reset();
  CommandResult result;
  std::array<char, 65536> chunk;
  while (out.read || err.read) {
    if (input.empty()) in.write.reset();
    pollfd ready[] = {{.fd = out.read.get(), .events = POLLIN, .revents = 0},
                      {.fd = err.read.get(), .events = POLLIN, .revents = 0},
                      {.fd = in.write.get(), .events = POLLOUT, .revents = 0}};
    if (::poll(ready, 3, boundMs) <= 0) {
      ::kill(pid, SIGKILL);
      break;
    }
    const auto drain = [&](UniqueFd& fd, std::string& text) {
      const ssize_t count = ::read(fd.get(), chunk.data(), chunk.size());
      if (count > 0) text.append(chunk.data(), static_cast<std::size_t>(count));
      if (count <= 0) fd.reset();
    };
    if (ready[0].revents) drain(out.read, result.out);
    if (ready[1].revents) drain(err.read, result.err);
    if (ready[2].revents) {
      const ssize_t count =
          ::write(in.write.get(), input.data(), std::min<std::size_t>(input.size(), 4096));
      if (count < 0) input = {};
      if (count > 0) input.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.exit = statusOf(status);
  return result;
}

HelperProcess::HelperProcess(const Options& options) {
  Stream in = makePipe();
  int ends[2];
  require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  output_.reset(ends[0]);
  UniqueFd written(ends[1]);
  Stream numbers = makePipe();

  // The number of the parent is known only in the middle process, so there is room for it here.
  std::string parentVariable = "VESKOKIT_PARENT_PID=0000000000";
  std::vector<std::string> environment = environmentOf(options.variables);
  if (!options.stateDirectory.empty())
    environment.push_back("VESKOKIT_STATE_DIR=" + options.stateDirectory.native());
  const bool addsParent = !options.variables.contains("VESKOKIT_PARENT_PID");
  if (addsParent) environment.push_back(parentVariable);
  const auto fillParent = [&](pid_t pid) {
    if (!addsParent) return;
    std::string& text = environment.back();
    for (std::size_t i = text.size(); text[i - 1] != '='; --i, pid /= 10)
      text[i - 1] = static_cast<char>('0' + pid % 10);
  };
  std::vector<std::string> words{VESKOKIT_DAEMON_PATH};
  const auto argv = pointers(words);
  const auto envp = pointers(environment);
  const auto start = [&] {
    fillParent(::getpid());
    const pid_t pid = ::fork();
    if (pid == 0)
      execute(in.read.get(), written.get(), written.get(), options.user, argv.data(), envp.data());
    return pid;
  };
  if (!options.withParentOfItsOwn) {
    pid_ = start();
    require(pid_ > 0, "fork");
  } else {
    parent_ = ::fork();
    if (parent_ == 0) {
      const pid_t pid = start();
      [[maybe_unused]] const auto sent = ::write(numbers.write.get(), &pid, sizeof pid);
      for (;;) ::pause();
    }
    require(::read(numbers.read.get(), &pid_, sizeof pid_) == sizeof pid_, "no helper");
  }
  input_ = std::move(in.write);
}

HelperProcess::~HelperProcess() {
  for (const pid_t pid : {pid_, parent_}) {
    if (pid <= 0 || (pid == pid_ && reaped_)) continue;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
}

void HelperProcess::send(std::string_view line) {
  const std::string text = std::string(line) + "\n";
  std::string_view rest = text;
  while (!rest.empty()) rest.remove_prefix(sendRaw(rest));
}

std::size_t HelperProcess::sendRaw(std::string_view bytes) {
  const ssize_t count = ::write(input_.get(), bytes.data(), bytes.size());
  require(count > 0, "the helper does not read");
  return static_cast<std::size_t>(count);
}

bool HelperProcess::readWrite() {
  pollfd ready{.fd = output_.get(), .events = POLLIN, .revents = 0};
  if (::poll(&ready, 1, boundMs) != 1) return false;
  std::array<char, 65536> message;
  const ssize_t count = ::recv(output_.get(), message.data(), message.size(), 0);
  if (count <= 0) return false;
  writes_.emplace_back(message.data(), static_cast<std::size_t>(count));
  return true;
}

std::string HelperProcess::waitFor(std::string_view text) {
  for (;;) {
    while (examined_ < writes_.size()) {
      const std::string& write = writes_[examined_++];
      if (write.find(text) != std::string::npos) return write;
    }
    if (!readWrite()) return {};
  }
}

void HelperProcess::waitUntilServing() {
  require(!waitFor("\"connected\"").empty(), "the helper does not serve");
}

int HelperProcess::waitForExit() {
  require(waitForEnd(pid_), "the helper does not end");
  int status = 0;
  ::waitpid(pid_, &status, 0);
  reaped_ = true;
  while (readWrite()) {
  }
  return statusOf(status);
}

std::string HelperProcess::allOutput() const {
  std::string text;
  for (const std::string& write : writes_) text += write;
  return text;
}

}  // namespace vesko
