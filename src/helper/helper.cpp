#include "helper/helper.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "helper/bounded_lines.h"
#include "helper/companion_input.h"
#include "helper/control_client.h"
#include "helper/device_id.h"
#include "helper/helper_system.h"
#include "helper/local_requests.h"
#include "helper/local_server.h"
#include "helper/local_socket.h"
#include "helper/poll_loop.h"

namespace vesko {
namespace {

constexpr std::chrono::seconds parentCheckPeriod{2};

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

std::expected<Pipe, std::string> makePipe() {
  int ends[2];
  if (::pipe(ends) != 0) return std::unexpected("no pipe to be had");
  for (const int end : ends) {
    ::fcntl(end, F_SETFD, FD_CLOEXEC);
    ::fcntl(end, F_SETFL, O_NONBLOCK);
  }
  return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// The only thing that a signal handler may touch.
volatile sig_atomic_t signalPipe = -1;

void onSignal(int) {
  const int saved = errno;
  [[maybe_unused]] const auto ignored = ::write(signalPipe, "", 1);
  errno = saved;
}

void installSignals(int pipe) {
  signalPipe = pipe;
  struct sigaction ignore{};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, nullptr);
  struct sigaction end{};
  end.sa_handler = onSignal;
  end.sa_flags = SA_RESTART;
  ::sigaction(SIGTERM, &end, nullptr);
  ::sigaction(SIGINT, &end, nullptr);
  // Whoever started us may have blocked them for itself.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  ::sigprocmask(SIG_UNBLOCK, &ends, nullptr);
}

/// Reads the companion's lines until the end of the stream.
class CompanionStream {
 public:
  CompanionStream(PollLoop& loop, int fd, CompanionInput& input, HelperReporter& reporter)
      : loop_(loop), fd_(fd), input_(input), reporter_(reporter), lines_(input.maxLineBytes) {
    loop_.watch(fd_, POLLIN, [this](short) { read(); });
  }

 private:
  void read() {
    std::array<char, 65536> chunk;
    const ssize_t count = ::read(fd_, chunk.data(), chunk.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count <= 0) {
      reporter_.log("the companion closed the control stream; ending");
      return loop_.stop();
    }
    lines_.append({chunk.data(), static_cast<std::size_t>(count)});
    while (auto line = lines_.next()) {
      if (line->tooLong) {
        reporter_.log("dropped a line from the companion that is too long");
      } else {
        input_.handleLine(line->text);
      }
    }
  }

  PollLoop& loop_;
  int fd_;
  CompanionInput& input_;
  HelperReporter& reporter_;
  BoundedLines lines_;
};

/// The descriptor, if any, lives as long as the loop may run.
std::expected<UniqueFd, std::string> watchParent(PollLoop& loop, pid_t parent,
                                                 HelperReporter& reporter) {
  UniqueFd watch = watchProcess(parent);
  // Only now: had the parent died before, its number could name another process.
  if (::getppid() != parent)
    return std::unexpected(fmt::format("process {} did not start this helper or is gone", parent));
  const auto end = [&loop, &reporter] {
    reporter.log("the companion is gone; ending");
    loop.stop();
  };
  if (watch) {
    loop.watch(watch.get(), POLLIN, [end](short) { end(); });
  } else {
    loop.every(parentCheckPeriod, [end, parent] {
      if (::getppid() != parent) end();
    });
  }
  return watch;
}

}  // namespace

std::expected<void, std::string> runHelper(const HelperSettings& settings, int input,
                                           HelperReporter& reporter) {
  const auto log = [&reporter](std::string_view text) { reporter.log(text); };
  auto signals = makePipe();
  auto cancel = makePipe();
  if (!signals || !cancel) return std::unexpected("no pipe to be had");
  installSignals(signals->write.get());

  PollLoop loop;
  loop.watch(signals->read.get(), POLLIN, [&](short) {
    reporter.log("asked to end");
    loop.stop();
  });
  UniqueFd parent;
  if (settings.parent) {
    auto watched = watchParent(loop, *settings.parent, reporter);
    if (!watched) return std::unexpected(std::move(watched.error()));
    parent = std::move(*watched);
  }
  reporter.connecting();
  const auto deviceId = loadDeviceId(settings.stateDirectory, log);
  if (!deviceId) return std::unexpected(deviceId.error());
  auto socket = LocalSocket::listen(settings.stateDirectory);
  if (!socket) return std::unexpected(std::move(socket.error()));

  CompanionInput companion(reporter, settings.grantedDirs, settings.photosLibrary);
  CompanionStream stream(loop, input, companion, reporter);
  const ControlClient client;
  const auto status = [&] {
    return LocalStatus{.version = settings.version,
                       .pid = ::getpid(),
                       .deviceId = *deviceId,
                       .deviceName = settings.deviceName,
                       .controlServer = companion.controlServer().has_value(),
                       .grantedDirs = companion.grantedDirs(),
                       .photosLibrary = companion.photosLibrary()};
  };
  LocalRequests requests(companion, client, cancel->read.get(), status, reporter);
  auto server = LocalServer::start(
      loop, std::move(*socket), {.lineBytes = maxLocalRequestBytes, .clients = maxLocalClients},
      {.begin = [&](BoundedLines::Line line) { return requests.begin(std::move(line)); },
       .refusal = LocalRequests::errorLine({}, LocalErrorCode::busy, "too many local clients"),
       .log = log});
  if (!server) return std::unexpected(std::move(server.error()));
  reporter.connected(*deviceId);

  loop.run();
  cancel->write.reset();  // ends the calls in flight: the other end reads as closed
  return {};
}

}  // namespace vesko
