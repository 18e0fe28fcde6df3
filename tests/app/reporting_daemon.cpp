// Stands in the bundle as the helper and tells the test, over the Unix socket that
// VESKO_DAEMON_SOCKET names, what happens to it: "env NAME=VALUE" for each variable and "ready" at
// the start, then "in LINE" for each line of its input, "eof" and "term". The test tells it "say
// TEXT", "fill LINES" or "exit STATUS"; what was said is answered with "said" once all of it is
// written. VESKO_DAEMON_MANNER is how it ends: at SIGTERM; when it is "patient", once its input
// has ended as well; when it is "stubborn", at neither. It never outlives the test's end of the
// socket.

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

int testSocket = -1;

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

void report(const std::string& text) {
  writeAll(testSocket, text + "\n");
}

// Reads once and calls back for each complete line; false at the end.
template <class OnLine>
bool readLines(int fd, std::string& rest, OnLine onLine) {
  char chunk[65536];
  const ssize_t count = ::read(fd, chunk, sizeof chunk);
  if (count <= 0) return false;
  rest.append(chunk, static_cast<std::size_t>(count));
  for (auto end = rest.find('\n'); end != std::string::npos; end = rest.find('\n')) {
    onLine(rest.substr(0, end));
    rest.erase(0, end + 1);
  }
  return true;
}

void obey(const std::string& command) {
  const auto space = command.find(' ');
  const std::string word = command.substr(0, space);
  const std::string value = space == std::string::npos ? "" : command.substr(space + 1);
  if (word == "exit") std::_Exit(std::atoi(value.c_str()));
  std::string text = value + "\n";
  if (word == "fill") {
    text.clear();
    const std::string line(1000, 'f');
    for (int i = std::atoi(value.c_str()); i > 0; --i) text += line + "\n";
  }
  writeAll(STDOUT_FILENO, text);
  report("said");
}

}  // namespace

int main() {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  const int signals = ::signalfd(-1, &set, SFD_CLOEXEC);
  const char* path = std::getenv("VESKO_DAEMON_SOCKET");
  const char* named = std::getenv("VESKO_DAEMON_MANNER");
  const std::string_view manner = named ? named : "";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!path || std::strlen(path) >= sizeof address.sun_path) return 90;
  std::strcpy(address.sun_path, path);
  testSocket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(testSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return 91;
  for (char** variable = environ; *variable; ++variable) report(std::string("env ") + *variable);
  report("ready");

  std::string input;
  std::string commands;
  pollfd ready[] = {{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                    {.fd = testSocket, .events = POLLIN, .revents = 0},
                    {.fd = signals, .events = POLLIN, .revents = 0}};
  bool terminated = false;
  for (;;) {
    if (::poll(ready, 3, -1) < 0) return 92;
    if (ready[1].revents && !readLines(testSocket, commands, obey)) return 93;
    if (ready[0].revents &&
        !readLines(STDIN_FILENO, input, [](const std::string& line) { report("in " + line); })) {
      report("eof");
      ready[0].fd = -1;
    }
    if (ready[2].revents) {
      signalfd_siginfo info{};
      if (::read(signals, &info, sizeof info) < 0) return 94;
      report("term");
      terminated = true;
      if (manner.empty()) return 0;
    }
    if (manner == "patient" && terminated && ready[0].fd < 0) return 0;
  }
}
