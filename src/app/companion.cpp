#include "app/companion.h"

#include <iterator>
#include <utility>

#include "control_server/permission_routes.h"
#include "control_server/tool_routes.h"

namespace vesko {

/// Answers what the daemon asks of the application.
class Companion::Requests : public DaemonRequests {
 public:
  Requests(AppState& state, AppLog& log, Permissions& permissions)
      : DaemonRequests(log), state_(state), permissions_(permissions) {}

  // The daemon alone holds the device's token; that it is connected is what there is to know of it.
  void confirmPairing(const std::string&) override { state_.hasDeviceToken.set(true); }

  void requestPhotosAccess() override {
    assertMainThread();
    permissions_.requestPhotos();
  }

 private:
  AppState& state_;
  Permissions& permissions_;
};

std::unique_ptr<Companion> Companion::create(Platform platform, ProcessIdentity identity) {
  InstanceLock instance;
  const auto outcome = instance.acquire(identity.directories.state);
  if (outcome == InstanceLock::Outcome::taken) return nullptr;
  std::unique_ptr<Companion> companion(
      new Companion(platform, std::move(identity), std::move(instance)));
  if (outcome == InstanceLock::Outcome::unavailable)
    companion->log_.write("ERROR state directory cannot be used; other instances go unnoticed");
  return companion;
}

Companion::Companion(Platform platform, ProcessIdentity identity, InstanceLock instance)
    : platform_(platform),
      identity_(std::move(identity)),
      instance_(std::move(instance)),
      log_(identity_.directories.logs),
      defaults_(identity_.directories.defaultsFile),
      state_(defaults_),
      killer_(platform_.loop, log_),
      imports_(state_, log_),
      requests_(std::make_unique<Requests>(state_, log_, permissions_)),
      supervisor_(
          {.state = state_,
           .log = log_,
           .loop = platform_.loop,
           .processes = platform_.processes,
           .killer = killer_,
           .bundle = identity_.bundle,
           .launchInputs =
               [this](std::optional<std::string> code) { return launchInputs(std::move(code)); }}),
      lines_(state_, log_, platform_.loop, supervisor_, imports_, *requests_),
      inputControl_(platform_.input, platform_.pasteboard,
                    [this] { return mayOperate(platform_.permissions); }),
      screenRecording_(platform_.permissions),
      screenCapture_(platform_.screen, screenRecording_),
      accessibilityControl_(platform_.accessibility, platform_.applications, platform_.windows),
      appWindowControl_(platform_.applications, platform_.windows),
      photosExport_(platform_.photoLibrary, platform_.pictures, platform_.permissions),
      daemonGrants_(state_, log_, platform_.loop,
                    [this] {
                      assertMainThread();
                      supervisor_.relaunchDaemon();
                    }),
      screenRecordingRelaunch_({.state = state_,
                                .log = log_,
                                .defaults = defaults_,
                                .application = platform_.application},
                               screenRecording_.launchedWithAccess()),
      permissionMonitor_({.state = state_,
                          .loop = platform_.loop,
                          .queue = permissionReadings_,
                          .probes = platform_.permissions,
                          .grants = protectedGrants_,
                          .daemonGrants = daemonGrants_,
                          .relaunch = screenRecordingRelaunch_}),
      permissions_({.state = state_,
                    .log = log_,
                    .requests = platform_.permissionRequests,
                    .probes = platform_.permissions,
                    .monitor = permissionMonitor_}),
      automationApproval_(platform_.loop, permissions_) {
  supervisor_.setObserver(lines_);
}

Companion::~Companion() {
  // Workers that wait for the user or reduce a picture would hold up the end of the control server.
  automationApproval_.cancel();
  photosExport_.cancel();
}

void Companion::start() {
  if (defaults_.loadProblem()) log_.write("ERROR " + *defaults_.loadProblem());

  supervisor_.killStrayDaemons(identity_.processId);
  permissionMonitor_.seed();
  startControlServer();
  supervisor_.launchDaemon(std::nullopt);
  permissionMonitor_.start();
}

void Companion::startControlServer() {
  std::vector<Route> routes = coreRoutes(platform_.permissions);
  const auto requestMessagesAutomation = [this] {
    const auto outcome = automationApproval_.request();
    return MessagesAutomationOutcome{outcome.status, outcome.alreadyGranted};
  };
  for (auto more :
       {captureRoutes(screenCapture_), inputRoutes(inputControl_), photosRoutes(photosExport_),
        accessibilityRoutes(accessibilityControl_), appWindowRoutes(appWindowControl_),
        permissionRoutes(requestMessagesAutomation)})
    routes.insert(routes.end(), std::make_move_iterator(more.begin()),
                  std::make_move_iterator(more.end()));
  auto server = ControlServer::create(
      leavePrivacyToTheUser(std::move(routes), platform_.permissions), platform_.permissions);
  if (!server) {
    log_.write("ERROR control server could not start: " + std::string(describe(server.error())));
    return;
  }
  controlServer_ = std::move(*server);
  controlServer_->onReady = [this](std::string handshake) {
    platform_.loop.post([this, handshake = std::move(handshake)]() mutable {
      assertMainThread();
      lines_.controlServerReady(std::move(handshake));
    });
  };
  controlServer_->onFailure = [this](std::string message) {
    platform_.loop.post([this, message = std::move(message)] {
      assertMainThread();
      log_.write("ERROR control server failed: " + message);
      lines_.controlServerGone();
    });
  };
  controlServer_->start();
}

void Companion::terminate(Closure done) {
  permissionMonitor_.stop();
  daemonGrants_.cancel();
  automationApproval_.cancel();
  photosExport_.cancel();
  permissions_.cancel();
  supervisor_.cancelRestart();
  supervisor_.stopDaemon();
  if (controlServer_) controlServer_->stop();
  killer_.whenIdle(std::move(done));
}

DaemonLaunchInputs Companion::launchInputs(std::optional<std::string> pairingCode) const {
  return {.ownEnvironment = identity_.environment,
          .bundle = identity_.bundle,
          .directories = identity_.directories,
          .executable = identity_.executable,
          .processId = identity_.processId,
          .relayUrlDefault = defaults_.text(defaultsKeys::relayUrl),
          .computerName = platform_.hostNames.computerName(),
          .hostName = platform_.hostNames.hostName(),
          .pairingCode = std::move(pairingCode),
          .grants = {.contacts = state_.contactsGranted.get(),
                     .contactsFile = std::nullopt,
                     .folders = state_.grantedFolders.get(),
                     .photosLibrary = std::nullopt}};
}

}  // namespace vesko
