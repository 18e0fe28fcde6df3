#include "platform/linux/detached_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>
#include <vector>

#include "platform/linux/pidfd.h"

namespace vesko {
namespace {

// The program's own pid is known to itself alone before it runs. The limit is the one that programs
// expect; this process has raised its own.
constexpr const char* startScript =
    "ulimit -S -n 1024 2>/dev/null; "
    "GIO_LAUNCHED_DESKTOP_FILE_PID=$$; export GIO_LAUNCHED_DESKTOP_FILE_PID; exec \"$@\"";
constexpr int notExecutable = 126;
constexpr int notFound = 127;

/// What concerns this process alone: its settings, what its service manager told it, and the
/// request by which it was started itself.
bool isOwn(std::string_view name) {
  constexpr std::array<std::string_view, 12> others{"DESKTOP_STARTUP_ID",
                                                    "GIO_LAUNCHED_DESKTOP_FILE",
                                                    "GIO_LAUNCHED_DESKTOP_FILE_PID",
                                                    "INVOCATION_ID",
                                                    "JOURNAL_STREAM",
                                                    "LISTEN_FDNAMES",
                                                    "LISTEN_FDS",
                                                    "LISTEN_PID",
                                                    "NOTIFY_SOCKET",
                                                    "WATCHDOG_PID",
                                                    "WATCHDOG_USEC",
                                                    "XDG_ACTIVATION_TOKEN"};
  return name.starts_with("VESKOKIT_") || std::ranges::find(others, name) != others.end();
}

std::vector<std::string> environmentFor(const InstalledEntry& entry, const Environment& own) {
  std::vector<std::string> texts;
  for (const auto& [name, value] : own) {
    if (!isOwn(name)) texts.push_back(name + '=' + value);
  }
  texts.push_back("GIO_LAUNCHED_DESKTOP_FILE=" + entry.file.native());
  return texts;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::expected<std::vector<std::string>, std::string> commandFor(const InstalledEntry& entry,
                                                                const Environment& own) {
  std::vector<std::string> command = entry.command;
  const auto program = findProgram(command.front(), own);
  if (!program)
    return std::unexpected(fmt::format("the program \"{}\" was not found", command.front()));
  command.front() = program->native();
  if (!entry.entry.terminal) return command;
  for (const char* name : {"x-terminal-emulator", "xterm"}) {
    const auto terminal = findProgram(name, own);
    if (!terminal) continue;
    command.insert(command.begin(), {terminal->native(), "-e"});
    return command;
  }
  return std::unexpected("no terminal emulator was found");
}

bool isFolder(const std::string& path) {
  std::error_code error;
  return !path.empty() && std::filesystem::is_directory(path, error);
}

}  // namespace

std::expected<DetachedProcess, std::string> startDetached(const InstalledEntry& entry,
                                                          const Environment& own) {
  auto command = commandFor(entry, own);
  if (!command) return std::unexpected(std::move(command.error()));
  command->insert(command->begin(), {"/bin/sh", "-c", startScript, "sh"});
  auto environment = environmentFor(entry, own);
  const auto home = own.find("HOME");
  const std::string folder = isFolder(entry.entry.workingDirectory) ? entry.entry.workingDirectory
                             : home != own.end() && isFolder(home->second) ? home->second
                                                                           : "/";

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  sigset_t all;
  sigset_t none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSID);
  int error = posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
  if (!error)
    error = posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
    if (!error) error = posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_WRONLY, 0);
  }
  if (!error) error = posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  DetachedProcess process;
  if (!error)
    error = posix_spawn(&process.pid, command->front().c_str(), &actions, &attributes,
                        pointersTo(*command).data(), pointersTo(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error) return std::unexpected(std::generic_category().message(error));
  // The id cannot be reused before the child is reaped.
  process.pidfd.reset(pidfd_open(process.pid, 0));
  if (!process.pidfd) return std::unexpected(std::generic_category().message(errno));
  return process;
}

std::optional<std::string> endOf(const DetachedProcess& process) {
  siginfo_t info{};
  if (::waitid(P_PIDFD, static_cast<id_t>(process.pidfd.get()), &info, WEXITED | WNOHANG) != 0)
    return errno == EINTR ? std::nullopt : std::optional<std::string>("the program has ended");
  if (info.si_pid == 0) return std::nullopt;
  if (info.si_code != CLD_EXITED)
    return fmt::format("the program was ended by signal {} ({})", info.si_status,
                       ::strsignal(info.si_status));
  switch (info.si_status) {
    case 0:
      return std::string();
    case notExecutable:
    case notFound:
      return "the program could not be executed";
    default:
      return fmt::format("the program ended with status {}", info.si_status);
  }
}

}  // namespace vesko
