#include "desktop.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace vesko::test {
namespace {

using Clock = std::chrono::steady_clock;

int millisecondsLeft(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<std::int64_t>(left, 0));
}

}  // namespace

Program::Program(std::vector<std::string> command, const std::string& input) {
  std::array<int, 2> out{};
  // Roomy, so that a program never has to wait for the test to read.
  if (::pipe2(out.data(), O_CLOEXEC) != 0 || ::fcntl(out[0], F_SETPIPE_SZ, 1 << 20) < 0)
    std::abort();
  std::vector<char*> arguments;
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  // An unlinked file and not a pipe: nobody has to write while the child runs.
  const std::unique_ptr<FILE, int (*)(FILE*)> in(std::tmpfile(), &std::fclose);
  std::fwrite(input.data(), 1, input.size(), in.get());
  std::rewind(in.get());
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(::fileno(in.get()), 0);
    ::dup2(out[1], 1);
    ::execvp(arguments[0], arguments.data());
    ::_exit(127);
  }
  ::close(out[1]);
  output_ = UniqueFd(out[0]);
}

Program::~Program() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  wait();
}

int Program::wait() {
  int status = -1;
  if (pid_ > 0) ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return status;
}

void Program::signal(int number) const {
  ::kill(pid_, number);
}

bool Program::readMore(Clock::time_point deadline) {
  pollfd readable{output_.get(), POLLIN, 0};
  if (::poll(&readable, 1, millisecondsLeft(deadline)) <= 0) return false;
  std::array<char, 65536> chunk{};
  const ssize_t count = ::read(output_.get(), chunk.data(), chunk.size());
  if (count <= 0) return false;
  buffer_.append(chunk.data(), static_cast<std::size_t>(count));
  return true;
}

std::optional<std::string> Program::waitFor(const std::function<bool(std::string_view)>& wanted,
                                            std::chrono::seconds bound) {
  const auto deadline = Clock::now() + bound;
  for (;;) {
    const auto end = buffer_.find('\n');
    if (end == std::string::npos) {
      if (!readMore(deadline)) return std::nullopt;
      continue;
    }
    lastLine_ = buffer_.substr(0, end);
    buffer_.erase(0, end + 1);
    if (wanted(lastLine_)) return lastLine_;
  }
}

std::string Program::readAll(std::chrono::seconds bound) {
  const auto deadline = Clock::now() + bound;
  while (readMore(deadline)) {
  }
  return std::exchange(buffer_, {});
}

std::string outputOf(std::vector<std::string> command, const std::string& input) {
  Program program(std::move(command), input);
  std::string output = program.readAll();
  program.wait();
  return output;
}

bool eventually(const std::function<bool()>& condition, std::chrono::seconds bound) {
  const auto deadline = Clock::now() + bound;
  while (!condition()) {
    if (Clock::now() > deadline) return false;
    ::poll(nullptr, 0, 5);
  }
  return true;
}

std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '\n')
      result += "\\n";
    else if (c == '\t')
      result += "\\t";
    else if (c == '\\')
      result += "\\\\";
    else
      result += c;
  }
  return result;
}

}  // namespace vesko::test
