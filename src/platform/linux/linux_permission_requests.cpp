#include "platform/linux/linux_permission_requests.h"

#include <fmt/format.h>

#include <csignal>
#include <utility>

#include "base/main_thread.h"
#include "base/text.h"
#include "platform/linux/privacy_program.h"

namespace vesko {
namespace {

/// Toolkits may be talkative; the message that counts comes last.
constexpr std::size_t maxOutput = 16384;

std::string lastError(std::string_view output) {
  std::string_view error;
  for (const std::string_view line : splitDroppingEmpty(output, '\n')) {
    if (line.starts_with(privacyProgram::errorPrefix))
      error = line.substr(privacyProgram::errorPrefix.size());
  }
  return std::string(error);
}

}  // namespace

std::optional<Consent> privacyProgram::settingsPage(std::string_view url) {
  if (url == settingsPages::accessibility) return Consent::accessibility;
  if (url == settingsPages::screenCapture) return Consent::screenRecording;
  if (url == settingsPages::automation) return Consent::messagesAutomation;
  if (url == settingsPages::photos) return Consent::photos;
  return std::nullopt;
}

LinuxPermissionRequests::LinuxPermissionRequests(Setup setup)
    : setup_(std::move(setup)), probes_(setup_.consents) {
  std::erase_if(setup_.environment,
                [](const auto& entry) { return entry.first.starts_with("VESKOKIT_"); });
}

LinuxPermissionRequests::~LinuxPermissionRequests() {
  cancel();
}

void LinuxPermissionRequests::requestAccessibility(PermissionCallback<bool> done) {
  ask<bool>(Consent::accessibility, std::move(done),
            [](LinuxPermissionProbes& probes) { return probes.accessibilityTrusted(); });
}

void LinuxPermissionRequests::requestScreenCapture(PermissionCallback<bool> done) {
  ask<bool>(Consent::screenRecording, std::move(done),
            [](LinuxPermissionProbes& probes) { return probes.screenCaptureAllowed(); });
}

void LinuxPermissionRequests::requestPhotos(PermissionCallback<PhotosPermission> done) {
  ask<PhotosPermission>(Consent::photos, std::move(done),
                        [](LinuxPermissionProbes& probes) { return probes.photos(); });
}

void LinuxPermissionRequests::requestContacts(PermissionCallback<ContactsPermission> done) {
  ask<ContactsPermission>(Consent::contacts, std::move(done),
                          [](LinuxPermissionProbes& probes) { return probes.contacts(); });
}

void LinuxPermissionRequests::requestAutomation(AutomationTarget target,
                                                PermissionCallback<AutomationStatus> done) {
  if (target == AutomationTarget::messages) {
    ask<AutomationStatus>(Consent::messagesAutomation, std::move(done),
                          [](LinuxPermissionProbes& probes) {
                            return probes.automation(AutomationTarget::messages);
                          });
  } else {
    ask<AutomationStatus>(
        Consent::notesAutomation, std::move(done),
        [](LinuxPermissionProbes& probes) { return probes.automation(AutomationTarget::notes); });
  }
}

template <class Status>
void LinuxPermissionRequests::ask(Consent consent, PermissionCallback<Status> done,
                                  Status (*read)(LinuxPermissionProbes&)) {
  if (setup_.consents.state(consent) != ConsentState::notDetermined) {
    setup_.loop.post([this, weak = std::weak_ptr(alive_), read, done = std::move(done)]() mutable {
      if (weak.lock()) done(PermissionAnswer<Status>{.status = read(probes_), .asked = false});
    });
    return;
  }
  run({"--consents", setup_.consents.file(), "ask", std::string(json::wordOf(consent))},
      [this, read, done = std::move(done)](std::expected<int, std::string> result) mutable {
        if (!result) {
          done(std::unexpected(std::move(result.error())));
        } else {
          done(PermissionAnswer<Status>{.status = read(probes_), .asked = true});
        }
      });
}

void LinuxPermissionRequests::openSettings(std::string_view page,
                                           std::move_only_function<void(std::string)> failed) {
  const auto consent = privacyProgram::settingsPage(page);
  if (!consent) {
    setup_.loop.post([failed = std::move(failed)]() mutable { failed("no such settings page"); });
    return;
  }
  run({"--consents", setup_.consents.file(), "settings", std::string(json::wordOf(*consent))},
      [failed = std::move(failed)](std::expected<int, std::string> result) mutable {
        if (!result) failed(std::move(result.error()));
      });
}

void LinuxPermissionRequests::run(std::vector<std::string> arguments, Ended ended) {
  const std::uint64_t id = ++lastRun_;
  Run& entry = runs_[id];
  entry.ended = std::move(ended);
  auto started = setup_.processes.launch(
      {.executable = setup_.program,
       .environment = setup_.environment,
       .arguments = std::move(arguments),
       .onOutput =
           [&entry](std::string_view chunk) {
             entry.output += chunk;
             if (entry.output.size() > maxOutput)
               entry.output.erase(0, entry.output.size() - maxOutput);
           },
       .onExit =
           [this, id, &entry](ProcessExit exit) {
             if (!exit.signalled && exit.code != privacyProgram::usage &&
                 exit.code != privacyProgram::notAsked) {
               finish(id, exit.code);
               return;
             }
             std::string reason = lastError(entry.output);
             if (reason.empty())
               reason = fmt::format("{} ended with {} {}", privacyProgram::name,
                                    exit.signalled ? "signal" : "exit code", exit.code);
             finish(id, std::unexpected(std::move(reason)));
           }});
  if (started) {
    entry.process = std::move(*started);
    // Nothing is ever sent to it.
    entry.process->closeInput();
  } else {
    finish(id, std::unexpected(
                   fmt::format("{} could not start: {}", privacyProgram::name, started.error())));
  }
}

// Posted, since it may be called by run() or by the process's own notice.
void LinuxPermissionRequests::finish(std::uint64_t id, std::expected<int, std::string> result) {
  setup_.loop.post([this, weak = std::weak_ptr(alive_), id, result = std::move(result)]() mutable {
    if (!weak.lock()) return;
    auto run = runs_.extract(id);
    if (run) run.mapped().ended(std::move(result));
  });
}

void LinuxPermissionRequests::cancel() {
  // Killed rather than asked to end: there is nothing to save, and whoever waits for this process's
  // children must not wait for a toolkit.
  for (auto& [id, run] : std::exchange(runs_, {})) {
    if (run.process) run.process->signal(SIGKILL);
  }
}

}  // namespace vesko
