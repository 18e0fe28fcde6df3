// A child process that does what VESKO_CHILD names, with VESKO_CHILD_VALUE as its number. Before
// and after that it says VESKO_CHILD_FIRST and VESKO_CHILD_LAST. Where a test must know that it got
// somewhere, it says so in a line on its standard output.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void say(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
    if (count <= 0) std::_Exit(99);
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

template <class Take>
void readInput(Take take) {
  char chunk[65536];
  for (ssize_t count = 0; (count = ::read(STDIN_FILENO, chunk, sizeof chunk)) > 0;)
    take(std::string_view(chunk, static_cast<std::size_t>(count)));
}

void waitForSignal(int number) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, number);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  say("ready\n");
  int arrived = 0;
  ::sigwait(&set, &arrived);
}

// What the parent handed down besides what it meant to: signals, descriptors, variables.
void reportInheritance() {
  std::string report = "ignored";
  sigset_t mask;
  ::sigprocmask(SIG_SETMASK, nullptr, &mask);
  for (int number = 1; number < 65; ++number) {
    struct sigaction action{};
    if (::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
      report += " " + std::to_string(number);
  }
  report += "\nblocked";
  for (int number = 1; number < 65; ++number) {
    if (sigismember(&mask, number) == 1) report += " " + std::to_string(number);
  }
  report += "\ndescriptors";
  for (int fd = 0; fd < 1024; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) report += " " + std::to_string(fd);
  }
  struct stat output{};
  struct stat error{};
  ::fstat(STDOUT_FILENO, &output);
  ::fstat(STDERR_FILENO, &error);
  report += output.st_ino == error.st_ino ? "\none pipe" : "\ntwo pipes";
  report += "\nvariables";
  for (char** variable = environ; *variable; ++variable) report += std::string(" ") + *variable;
  say(report + "\n");
}

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

int digitValue(char digit) {
  return digit <= '9' ? digit - '0' : digit - 'a' + 10;
}

// Each line of the input that is not JSON names bytes in hexadecimal, which are written in one go.
void writeNamedBytes() {
  std::string line;
  readInput([&line](std::string_view chunk) {
    for (const char c : chunk) {
      if (c != '\n') {
        line += c;
        continue;
      }
      std::string bytes;
      for (std::size_t at = 0; !line.starts_with('{') && at + 1 < line.size(); at += 2)
        bytes += static_cast<char>(digitValue(line[at]) * 16 + digitValue(line[at + 1]));
      say(bytes);
      line.clear();
    }
  });
}

int act(std::string_view mode, long value) {
  if (mode == "echo") {
    readInput(say);
  } else if (mode == "exit") {
    say("farewell");
    return static_cast<int>(value);
  } else if (mode == "die") {
    say("farewell");
    ::raise(static_cast<int>(value));
  } else if (mode == "ignore_term") {
    ::signal(SIGTERM, SIG_IGN);
    waitForSignal(SIGUSR1);
  } else if (mode == "flood") {
    const std::string block(1 << 20, 'x');
    for (long sent = 0; sent < value; ++sent) say(block);
  } else if (mode == "close_output") {
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    char digit = 0;
    return ::read(STDIN_FILENO, &digit, 1) == 1 ? digit - '0' : 98;
  } else if (mode == "close_input") {
    ::close(STDIN_FILENO);
    waitForSignal(SIGUSR1);
  } else if (mode == "leave_child") {
    const pid_t child = ::fork();
    if (child == 0) {
      readInput([](std::string_view) {});
      return 0;
    }
    say(std::to_string(child) + "\n");
  } else if (mode == "leave_idle_child") {
    // It holds both pipes and looks at neither.
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(120);
      for (;;) ::pause();
    }
    say(std::to_string(child) + "\n");
    return static_cast<int>(value);
  } else if (mode == "close_everything") {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    const std::string_view farewell = "closed\n";
    if (::write(STDERR_FILENO, farewell.data(), farewell.size()) < 0) return 98;
    ::close(STDERR_FILENO);
    ::alarm(120);
    int arrived = 0;
    ::sigwait(&set, &arrived);
    return static_cast<int>(value);
  } else if (mode == "bite") {
    // Ends in the middle of what it is being told.
    std::string bitten(static_cast<std::size_t>(value), '\0');
    for (std::size_t taken = 0; taken < bitten.size();) {
      const ssize_t count = ::read(STDIN_FILENO, bitten.data(), bitten.size() - taken);
      if (count <= 0) return 98;
      taken += static_cast<std::size_t>(count);
    }
    return 5;
  } else if (mode == "write_named_bytes") {
    writeNamedBytes();
  } else if (mode == "digest") {
    // Reads nothing until it is told to, then says how much came and what.
    waitForSignal(SIGUSR1);
    std::uint64_t count = 0;
    std::uint64_t hash = 14695981039346656037ULL;
    readInput([&](std::string_view chunk) {
      count += chunk.size();
      for (const char c : chunk) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    });
    say(std::to_string(count) + " " + std::to_string(hash) + "\n");
  } else if (mode == "inherit") {
    reportInheritance();
  } else {
    return 97;
  }
  return 0;
}

}  // namespace

int main() {
  const std::string value(variable("VESKO_CHILD_VALUE"));
  say(variable("VESKO_CHILD_FIRST"));
  const int status = act(variable("VESKO_CHILD"), std::strtol(value.c_str(), nullptr, 10));
  say(variable("VESKO_CHILD_LAST"));
  return status;
}
