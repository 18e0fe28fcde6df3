// How fast a helper's output is taken: real process, pipe, main loop, lines, state and log.
//
//   lines_bench lines|bytes COUNT BENCH_DAEMON       prints seconds
#include <fmt/format.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "base/main_thread.h"
#include "platform/linux/glib_main_loop.h"
#include "platform/linux/linux_process_host.h"
#include "state/control_lines.h"
#include "support/temporary_directory.h"

namespace vesko {
namespace {

class Requests : public DaemonRequests {
 public:
  using DaemonRequests::DaemonRequests;
  void confirmPairing(const std::string&) override {}
};

int measure(const std::string& kind, const std::string& count, const char* daemon) {
  assertMainThread();
  std::signal(SIGPIPE, SIG_IGN);
  const support::TemporaryDirectory home;
  const auto app = home / "Bench.app";
  std::filesystem::create_directories(app / "Contents/Resources");
  std::filesystem::copy_file(daemon, app / "Contents/Resources/veskokit-daemon");

  GlibMainLoop loop;
  LinuxProcessHost processes;
  AppLog log(home / "Logs");
  UserDefaults defaults(home / "defaults.plist");
  AppState state(defaults);
  const Bundle bundle = Bundle::at(app);
  const auto directories = Directories::under(home.path(), std::nullopt);
  ProcessKiller killer(loop, log);
  ImportStatus imports(state, log);
  Requests requests(log);
  DaemonSupervisor supervisor(
      {.state = state,
       .log = log,
       .loop = loop,
       .processes = processes,
       .killer = killer,
       .bundle = bundle,
       .launchInputs = [&](std::optional<std::string>) {
         return DaemonLaunchInputs{
             .ownEnvironment = {{kind == "lines" ? "BENCH_LINES" : "BENCH_BYTES", count}},
             .bundle = bundle,
             .directories = directories,
             .executable = {},
             .processId = ::getpid(),
             .relayUrlDefault = std::nullopt,
             .computerName = {},
             .hostName = "bench",
             .pairingCode = std::nullopt,
             .grants = {}};
       }});
  ControlLines lines(state, log, loop, supervisor, imports, requests);
  supervisor.setObserver(lines);
  const auto observing = state.observe([&](AppField field) {
    if (field == AppField::status && state.status->kind == Status::Kind::connected) loop.quit();
  });

  const auto start = std::chrono::steady_clock::now();
  supervisor.launchDaemon(std::nullopt);
  loop.run();
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  fmt::print("{:.6f}\n", seconds.count());

  supervisor.stopDaemon();
  killer.whenIdle([&] { loop.quit(); });
  loop.run();
  return 0;
}

}  // namespace
}  // namespace vesko

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: lines_bench lines|bytes COUNT BENCH_DAEMON\n", stderr);
    return 2;
  }
  vesko::adoptMainThread();
  return vesko::measure(argv[1], argv[2], argv[3]);
}
