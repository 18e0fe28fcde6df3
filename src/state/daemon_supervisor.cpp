#include "state/daemon_supervisor.h"

#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <utility>

#include "base/utf8.h"

namespace vesko {
namespace {

constexpr std::string_view executableName = "veskokit-daemon";
constexpr Duration firstRestartDelay = std::chrono::seconds(1);
constexpr Duration longestRestartDelay = std::chrono::seconds(30);

std::optional<std::string> reasonText(ProcessExit exit) {
  if (exit.signalled) return fmt::format("signal {}", exit.code);
  if (exit.code != 0) return fmt::format("exit code {}", exit.code);
  return std::nullopt;
}

// States that only the user or the backend can leave: a helper that dies must not hide what they
// say.
bool survivesExit(Status::Kind kind) {
  return kind == Status::Kind::paused || kind == Status::Kind::unpairedTakeover ||
         kind == Status::Kind::needsCode || kind == Status::Kind::error;
}

}  // namespace

DaemonSupervisor::DaemonSupervisor(Context context) : context_(std::move(context)) {}

void DaemonSupervisor::launchDaemon(std::optional<std::string> pairingCode) {
  AppState& state = context_.state;
  restartTask_.cancel();
  stopDaemon();
  if (!state.unpairWipesPending.empty()) {
    state.heldDaemonLaunch = {true, std::move(pairingCode)};
    context_.log.write("daemon launch waits for the unpair wipe");
    return;
  }
  observer_->daemonInterrupted("daemon relaunch");
  state.connectedAt.reset();

  const auto executable = context_.bundle.resource(executableName);
  if (!executable) {
    context_.log.write("ERROR daemon helper missing from app bundle");
    state.status.set(Status::helperUnavailable(
        "Vesko's helper is missing from the app. Reinstall Vesko, then retry."));
    return;
  }
  const DaemonLaunchInputs inputs = context_.launchInputs(std::move(pairingCode));
  context_.log.write(fmt::format("launching daemon: {} relay={} code={}", executable->native(),
                                 relayUrl(inputs), inputs.pairingCode.has_value()));
  start({.executable = *executable,
         .environment = daemonEnvironment(inputs),
         .onOutput = {},
         .onExit = {}});
}

void DaemonSupervisor::start(ProcessLaunch launch) {
  AppState& state = context_.state;
  const std::uint64_t generation = state.daemonGeneration;
  launch.onOutput = [this, generation](std::string_view chunk) {
    assertMainThread();
    handleOutput(chunk, generation);
  };
  launch.onExit = [this, generation](ProcessExit exit) {
    assertMainThread();
    handleDaemonExit(exit, generation);
  };
  auto started = context_.processes.launch(std::move(launch));
  if (!started) {
    context_.log.write("ERROR daemon run() failed: " + started.error());
    state.status.set(
        Status::helperUnavailable("Vesko's helper could not start: " + started.error()));
    return;
  }
  process_ = std::move(*started);
  context_.log.write(fmt::format("daemon run() ok pid={}", process_->pid()));
  observer_->daemonStarted();
}

void DaemonSupervisor::relaunchDaemon() {
  launchDaemon(context_.state.pairingCodeForRelaunch);
}

bool DaemonSupervisor::replayHeldLaunch() {
  HeldDaemonLaunch launch = std::exchange(context_.state.heldDaemonLaunch, {});
  if (launch.held) launchDaemon(std::move(launch.pairingCode));
  return launch.held;
}

void DaemonSupervisor::stopDaemon() {
  AppState& state = context_.state;
  ++state.daemonGeneration;
  state.heldDaemonLaunch = {};
  observer_->daemonStopping();
  clearOutput();
  if (!process_) return;
  // Without its handlers this stop can never look like a death that needs a restart.
  const auto process = std::exchange(process_, nullptr);
  if (!process->running()) return;
  if (auto reference = context_.processes.open(process->pid())) {
    context_.killer.end(std::move(reference), process->pid(), "daemon");
  } else {
    process->signal(SIGTERM);  // no descriptor left for a reference: then without the grace time
  }
}

void DaemonSupervisor::handleOutput(std::string_view chunk, std::uint64_t generation) {
  if (generation != context_.state.daemonGeneration) return;
  if (!isValidUtf8(chunk)) {
    headLost_ = !chunk.ends_with('\n') || (headLost_ && output_.midLine());
    return;
  }
  output_.append(
      chunk,
      [this, generation](std::string_view line) {
        assertMainThread();
        observer_->daemonLine(line, std::exchange(headLost_, false));
        // The line may have stopped or replaced the daemon; the rest is then no longer wanted.
        return generation == context_.state.daemonGeneration;
      },
      [this] {
        context_.log.write(fmt::format("ERROR daemon line longer than {} bytes was dropped",
                                       LineSplitter::maxLineBytes));
      });
}

void DaemonSupervisor::clearOutput() {
  output_.clear();
  headLost_ = false;
}

void DaemonSupervisor::handleDaemonExit(ProcessExit exit, std::uint64_t generation) {
  AppState& state = context_.state;
  if (generation != state.daemonGeneration) return;
  const auto reason = reasonText(exit);
  context_.log.write("daemon exited " + reason.value_or("code=0"));
  observer_->daemonInterrupted("daemon exit");
  // This runs inside the process's own notice, so the object goes later.
  context_.loop.post([ended = std::move(process_)] {});
  process_ = nullptr;
  clearOutput();
  if (reason && !survivesExit(state.status->kind))
    state.status.set(Status::helperUnavailable("Vesko's helper stopped (" + *reason + ")"));
  // An observer of the status may have launched another one meanwhile.
  if (generation == state.daemonGeneration && shouldRun()) scheduleRestart();
}

bool DaemonSupervisor::shouldRun() const {
  const Status::Kind kind = context_.state.status->kind;
  return context_.state.hasDeviceToken.get() && kind != Status::Kind::paused &&
         kind != Status::Kind::needsCode;
}

void DaemonSupervisor::scheduleRestart() {
  AppState& state = context_.state;
  if (state.connectedAt && context_.loop.now() - *state.connectedAt >= state.stableConnectionWindow)
    state.restartDelay = firstRestartDelay;
  state.connectedAt.reset();
  const Duration delay = state.restartDelay;
  state.restartDelay = std::min(2 * delay, longestRestartDelay);
  context_.log.write(fmt::format("daemon exited unexpectedly; restarting in {}s",
                                 std::chrono::duration_cast<std::chrono::seconds>(delay).count()));
  state.status.set(Status::connecting());
  restartTask_ = context_.loop.after(delay, [this] {
    assertMainThread();
    if (shouldRun()) launchDaemon(context_.state.pairingCodeForRelaunch);
  });
}

bool DaemonSupervisor::daemonRunning() const {
  assertMainThread();
  return process_ && process_->running();
}

std::expected<void, DaemonChannel::Error> DaemonSupervisor::sendLine(std::string_view line) {
  assertMainThread();
  if (!daemonRunning()) return std::unexpected(Error{Failure::unavailable, {}});
  std::string bytes(line);
  bytes += '\n';
  if (auto written = process_->write(bytes); !written)
    return std::unexpected(Error{Failure::writeFailed, std::move(written.error())});
  return {};
}

void DaemonSupervisor::killStrayDaemons(pid_t self) {
  const auto identifier = context_.bundle.identifier();
  if (!identifier) return;
  for (const pid_t pid : context_.processes.processIds()) {
    if (pid == self) continue;
    // Opened before it is looked at: what is signalled is what was recognised.
    auto process = context_.processes.open(pid);
    const auto path = process ? context_.processes.executablePath(pid) : std::nullopt;
    if (!path || path->filename() != executableName) continue;
    const auto bundle = Bundle::containing(*path);
    if (!bundle || bundle->identifier() != identifier) continue;
    context_.log.write(fmt::format("killing stray veskokit-daemon pid={}", pid));
    context_.killer.end(std::move(process), pid, "stray veskokit-daemon");
  }
}

}  // namespace vesko
