#include "platform/linux/linux_child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <system_error>
#include <vector>

#include "platform/linux/pidfd.h"

namespace vesko {
namespace {

constexpr std::size_t readSize = 65536;
// One turn of the loop takes at most a megabyte from a child, or gives it as much.
constexpr int readsPerTurn = 16;
constexpr std::size_t bytesPerPush = 1 << 20;
constexpr int inputPipeSize = 1 << 20;

std::string systemText(int number) {
  return std::generic_category().message(number);
}

struct Pipe {
  UniqueFd reader;
  UniqueFd writer;
};

// Both ends lie above the standard streams: in a process that runs without some of those, what it
// prints would otherwise reach the child.
std::expected<Pipe, int> makePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return std::unexpected(errno);
  Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
  for (UniqueFd* end : {&pipe.reader, &pipe.writer}) {
    if (end->get() > STDERR_FILENO) continue;
    const int moved = ::fcntl(end->get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) return std::unexpected(errno);
    end->reset(moved);
  }
  return pipe;
}

bool makeNonBlocking(int fd) {
  return ::fcntl(fd, F_SETFL, O_NONBLOCK) == 0;
}

class FileActions {
 public:
  FileActions() { posix_spawn_file_actions_init(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

class Attributes {
 public:
  Attributes() { posix_spawnattr_init(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() { posix_spawnattr_destroy(&attributes_); }
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
};

// "NAME=value" strings, or nothing when one of them has no such form.
std::optional<std::vector<std::string>> assignments(const Environment& environment) {
  std::vector<std::string> strings;
  strings.reserve(environment.size());
  for (const auto& [name, value] : environment) {
    const bool named = !name.empty() && name.find('=') == std::string::npos;
    const bool terminated =
        name.find('\0') == std::string::npos && value.find('\0') == std::string::npos;
    if (!named || !terminated) return std::nullopt;
    strings.push_back(name + '=' + value);
  }
  return strings;
}

// Returns an error number, as posix_spawn does.
int spawn(const ProcessLaunch& launch, int input, int output, pid_t& pid) {
  auto strings = assignments(launch.environment);
  if (!strings) return EINVAL;
  std::vector<char*> environment;
  environment.reserve(strings->size() + 1);
  for (std::string& text : *strings) environment.push_back(text.data());
  environment.push_back(nullptr);
  std::vector<std::string> words{launch.executable.native()};
  words.insert(words.end(), launch.arguments.begin(), launch.arguments.end());
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  FileActions actions;
  Attributes attributes;
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(attributes.get(), &all);
  posix_spawnattr_setsigmask(attributes.get(), &none);
  posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  int error = posix_spawn_file_actions_adddup2(actions.get(), input, STDIN_FILENO);
  if (!error) error = posix_spawn_file_actions_adddup2(actions.get(), output, STDOUT_FILENO);
  if (!error) error = posix_spawn_file_actions_adddup2(actions.get(), output, STDERR_FILENO);
  // Close-on-exec covers our own descriptors; libraries and whoever started us may have left more.
  if (!error) error = posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1);
  if (error) return error;
  return posix_spawn(&pid, words[0].c_str(), actions.get(), attributes.get(), arguments.data(),
                     environment.data());
}

}  // namespace

std::expected<std::shared_ptr<LinuxChild>, std::string> LinuxChild::launch(ProcessLaunch launch) {
  assertMainThread();
  auto input = makePipe();
  if (!input) return std::unexpected(systemText(input.error()));
  auto output = makePipe();
  if (!output) return std::unexpected(systemText(output.error()));
  if (!makeNonBlocking(input->writer.get()) || !makeNonBlocking(output->reader.get()))
    return std::unexpected(systemText(errno));
  // Best effort: a user's pipe memory is limited.
  ::fcntl(input->writer.get(), F_SETPIPE_SZ, inputPipeSize);

  pid_t pid = 0;
  if (const int error = spawn(launch, input->reader.get(), output->writer.get(), pid))
    return std::unexpected(systemText(error));
  // The id cannot be reused before we reap the child.
  UniqueFd pidfd(pidfd_open(pid, 0));
  if (!pidfd) {
    const int error = errno;
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    return std::unexpected(systemText(error));
  }
  std::shared_ptr<LinuxChild> child(
      new LinuxChild(std::move(launch), pid, std::move(pidfd),
                     {std::move(input->writer), std::move(output->reader)}));
  child->watch();
  return child;
}

LinuxChild::LinuxChild(ProcessLaunch launch, pid_t pid, UniqueFd pidfd, Streams streams)
    : pid_(pid),
      pidfd_(std::move(pidfd)),
      input_(std::move(streams.input)),
      output_(std::move(streams.output)),
      onOutput_(std::move(launch.onOutput)),
      onExit_(std::move(launch.onExit)) {}

void LinuxChild::watch() {
  // This watch owns the child, so that it is reaped even when nobody else is left.
  exitWatch_ =
      FdWatch(pidfd_.get(), FdWatch::For::reading, [self = shared_from_this()] { self->reap(); });
  outputWatch_ = FdWatch(
      output_.get(), FdWatch::For::reading, [this] { readOutput(); }, FdWatch::Priority::shared);
}

void LinuxChild::signal(int number) {
  if (pidfd_) pidfd_send_signal(pidfd_.get(), number, nullptr, 0);
}

void LinuxChild::abandon() {
  abandoned_ = true;
  onOutput_ = nullptr;
  onExit_ = nullptr;
  closeOutput();
  failInput(EBADF);
}

// --- Output ---------------------------------------------------------------------------------

void LinuxChild::closeOutput() {
  outputWatch_.reset();
  output_.reset();
}

// False when the handler abandoned this child.
bool LinuxChild::deliver(std::string_view chunk) {
  // Held here during the call: the handler may abandon the child, and so destroy the handler.
  auto handler = std::exchange(onOutput_, nullptr);
  if (handler) handler(chunk);
  if (abandoned_) return false;
  onOutput_ = std::move(handler);
  return true;
}

void LinuxChild::readOutput() {
  const auto self = shared_from_this();
  std::array<char, readSize> chunk;
  for (int reads = 0; reads < readsPerTurn; ++reads) {
    const ssize_t count = ::read(output_.get(), chunk.data(), chunk.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      // Closed by the child, which may well live on.
      closeOutput();
      return;
    }
    if (!deliver({chunk.data(), static_cast<std::size_t>(count)})) return;
  }
}

// What the pipe holds now, and no more: processes that the child started may write for ever.
void LinuxChild::deliverRest() {
  int left = 0;
  if (!output_ || ::ioctl(output_.get(), FIONREAD, &left) != 0) return;
  std::array<char, readSize> chunk;
  while (left > 0) {
    const ssize_t count =
        ::read(output_.get(), chunk.data(), std::min(chunk.size(), static_cast<std::size_t>(left)));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    left -= static_cast<int>(count);
    if (!deliver({chunk.data(), static_cast<std::size_t>(count)})) return;
  }
}

// --- Input ----------------------------------------------------------------------------------

std::expected<void, std::string> LinuxChild::write(std::string_view line) {
  assertMainThread();
  if (inputError_) return std::unexpected(systemText(inputError_));
  if (line.size() > maxPendingInput - (pending_.size() - pendingTaken_))
    return std::unexpected(systemText(ENOBUFS));
  if (pending_.empty() && !pushInput(line)) return std::unexpected(systemText(inputError_));
  if (line.empty()) return {};
  if (pendingTaken_ > pending_.size() / 2) {
    pending_.erase(0, pendingTaken_);
    pendingTaken_ = 0;
  }
  pending_ += line;
  if (!inputWatch_)
    inputWatch_ = FdWatch(input_.get(), FdWatch::For::writing, [this] { flushInput(); });
  return {};
}

// Takes from the front of `bytes` what the pipe accepts now; false when it is broken.
bool LinuxChild::pushInput(std::string_view& bytes) {
  if (bytes.empty()) return true;
  const ssize_t count = ::write(input_.get(), bytes.data(), std::min(bytes.size(), bytesPerPush));
  if (count >= 0) {
    bytes.remove_prefix(static_cast<std::size_t>(count));
    return true;
  }
  if (errno == EAGAIN || errno == EINTR) return true;
  failInput(errno);
  return false;
}

void LinuxChild::flushInput() {
  std::string_view rest = std::string_view(pending_).substr(pendingTaken_);
  if (!pushInput(rest)) return;
  pendingTaken_ = pending_.size() - rest.size();
  if (!rest.empty()) return;
  std::string().swap(pending_);
  pendingTaken_ = 0;
  inputWatch_.reset();
  if (closing_) input_.reset();
}

void LinuxChild::closeInput() {
  if (inputError_) return;
  inputError_ = EBADF;
  closing_ = true;
  if (pending_.empty()) input_.reset();
}

void LinuxChild::failInput(int error) {
  inputError_ = error;
  inputWatch_.reset();
  input_.reset();
  std::string().swap(pending_);
  pendingTaken_ = 0;
}

// --- End ------------------------------------------------------------------------------------

void LinuxChild::reap() {
  const auto self = shared_from_this();
  siginfo_t info{};
  if (::waitid(P_PIDFD, static_cast<id_t>(pidfd_.get()), &info, WEXITED | WNOHANG) != 0) {
    if (errno == EINTR) return;
    // Somebody else reaped it. That it ended is certain, how is not.
    info.si_code = CLD_EXITED;
    info.si_status = -1;
  } else if (info.si_pid == 0) {
    return;
  }
  exitWatch_.reset();
  pidfd_.reset();
  deliverRest();
  if (abandoned_) return;
  closeOutput();
  failInput(EPIPE);
  onOutput_ = nullptr;
  auto handler = std::exchange(onExit_, nullptr);
  if (handler) handler({.signalled = info.si_code != CLD_EXITED, .code = info.si_status});
}

}  // namespace vesko
