#include "platform/linux/process_identity.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/file.h"
#include "base/text.h"
#include "base/unique_fd.h"

namespace vesko {
namespace {

constexpr std::string_view deletedMark = " (deleted)";
constexpr std::size_t maxCommandLine = 4 << 20;
// The kernel reads no more of a script's first line either (Linux 5.1, BINPRM_BUF_SIZE).
constexpr std::size_t maxInterpreterLine = 256;

bool sameFile(const std::filesystem::path& a, const std::filesystem::path& b) {
  std::error_code error;
  return std::filesystem::equivalent(a, b, error) && !error;
}

std::vector<std::string> firstArguments(pid_t pid) {
  std::vector<std::string> arguments;
  const auto bytes = readFile(fmt::format("/proc/{}/cmdline", pid), maxCommandLine);
  if (!bytes) return arguments;
  std::string_view rest = *bytes;
  while (arguments.size() < 3) {
    const auto end = rest.find('\0');
    if (end == std::string_view::npos) break;
    arguments.emplace_back(rest.substr(0, end));
    rest.remove_prefix(end + 1);
  }
  return arguments;
}

struct InterpreterLine {
  std::string interpreter;
  std::string argument;  ///< everything behind the interpreter, as one argument
};

std::optional<InterpreterLine> interpreterLine(const std::filesystem::path& script) {
  struct stat info{};
  const bool executable = ::stat(script.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
                          (info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
  if (!executable) return std::nullopt;
  const UniqueFd file(::open(script.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::string head(maxInterpreterLine, '\0');
  const ssize_t length = file ? ::read(file.get(), head.data(), head.size()) : -1;
  if (length < 0) return std::nullopt;
  head.resize(static_cast<std::size_t>(length));
  if (!head.starts_with("#!")) return std::nullopt;
  const std::string_view line = trim(std::string_view(head).substr(2, head.find('\n') - 2));
  const auto gap = line.find_first_of(" \t");
  InterpreterLine result{std::string(line.substr(0, gap)), {}};
  if (gap != std::string_view::npos) result.argument = trim(line.substr(gap));
  return result;
}

// "#!/usr/bin/env python3": the program that a search of PATH finds, started with the bare name.
bool foundOnPath(const std::string& name, const std::filesystem::path& executable) {
  const char* path = std::getenv("PATH");
  for (const auto folder : splitDroppingEmpty(path ? path : "", ':')) {
    const auto candidate = std::filesystem::path(folder) / name;
    std::error_code error;
    if (std::filesystem::exists(candidate, error)) return sameFile(candidate, executable);
  }
  return false;
}

std::optional<std::filesystem::path> runScript(pid_t pid, const std::filesystem::path& executable) {
  const auto arguments = firstArguments(pid);
  for (std::size_t at = 1; at < arguments.size(); ++at) {
    const std::filesystem::path script = arguments[at];
    if (!script.is_absolute()) continue;
    const auto line = interpreterLine(script);
    if (!line) continue;
    if (std::filesystem::path(line->interpreter).filename() == "env") {
      if (at == 1 && arguments[0] == line->argument && foundOnPath(line->argument, executable))
        return script;
      continue;
    }
    const std::size_t expected = line->argument.empty() ? 1 : 2;
    const bool startedSo = at == expected && arguments[0] == line->interpreter &&
                           (at == 1 || arguments[1] == line->argument);
    if (startedSo && sameFile(line->interpreter, executable)) return script;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::filesystem::path> processExecutable(pid_t pid) {
  const std::filesystem::path link = fmt::format("/proc/{}/exe", pid);
  std::error_code error;
  const auto target = std::filesystem::read_symlink(link, error);
  if (error) return std::nullopt;
  if (auto script = runScript(pid, link)) return script;
  std::string path = target.native();
  // A file may really be called so.
  if (path.ends_with(deletedMark) && !sameFile(target, link))
    path.resize(path.size() - deletedMark.size());
  return path;
}

}  // namespace vesko
