// The lines between the application and its daemon: what each incoming line changes, and the
// commands that go out. Main thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "state/app_log.h"
#include "state/app_state.h"
#include "state/daemon_supervisor.h"
#include "state/import_status.h"

namespace vesko {

/// What the daemon asks of the rest of the application. The defaults say in the log that nothing
/// here answers such a request; rooms that can answer override. Main thread.
class DaemonRequests {
 public:
  explicit DaemonRequests(AppLog& log) : log_(log) {}
  virtual ~DaemonRequests() = default;

  virtual void requestHomeFolder();
  virtual void requestFolder(const std::string& path);
  virtual void withdrawFolder(const std::string& path);
  virtual void requestPhotosAccess();

  /// A social transport message; never logged.
  virtual void socialMessage(std::string_view) {}
  virtual void socialDaemonRestarted() {}
  virtual void abortSocialStreams() {}

  /// The daemon holds the relay connection as this device.
  virtual void confirmPairing(const std::string& deviceId) = 0;
  /// The code of the attempt under way was refused.
  virtual void retirePairingCode() {}
  virtual void showSetup() {}

 protected:
  AppLog& log_;
};

class ControlLines : public DaemonObserver {
 public:
  ControlLines(AppState& state, AppLog& log, MainLoop& loop, DaemonChannel& daemon,
               ImportStatus& imports, DaemonRequests& requests)
      : state_(state),
        log_(log),
        loop_(loop),
        daemon_(daemon),
        imports_(imports),
        requests_(requests) {}

  /// With `headLost` as in DaemonObserver::daemonLine.
  void handleDaemonLine(std::string_view line, bool headLost = false) VESKO_REQUIRES(mainThread);

  /// Writes one encoded line; the label only names it in the log. False when it was not written.
  bool sendDaemonControl(std::string_view line, std::string_view label) VESKO_REQUIRES(mainThread);
  /// The unlabelled writer.
  bool sendDaemonLine(std::string_view line) VESKO_REQUIRES(mainThread);

  /// Remembers the control server's handshake for this and later daemons and sends it to a daemon
  /// that runs.
  void controlServerReady(std::string handshake) VESKO_REQUIRES(mainThread);
  /// The last handshake names a port that is closed: no later daemon gets it.
  void controlServerGone() VESKO_REQUIRES(mainThread);

  bool sendGrantedDirs(const std::vector<std::string>& folders) VESKO_REQUIRES(mainThread);
  bool sendPhotosLibrary(const std::optional<std::string>& path) VESKO_REQUIRES(mainThread);
  void sendSystemWillSleep() VESKO_REQUIRES(mainThread);
  void sendSystemDidWake() VESKO_REQUIRES(mainThread);

  void daemonStarted() override;
  void daemonLine(std::string_view line, bool headLost) override;
  void daemonStopping() override;
  void daemonInterrupted(std::string_view cause) override;

 private:
  void logLine(std::string_view line, bool headLost) VESKO_REQUIRES(mainThread);
  bool handleRequest(std::string_view line) VESKO_REQUIRES(mainThread);
  void handleAppControl(const std::string& kind, const std::optional<std::string>& path,
                        const std::optional<std::string>& scope) VESKO_REQUIRES(mainThread);
  void handlePresence(std::string_view record) VESKO_REQUIRES(mainThread);
  void handleText(std::string_view line) VESKO_REQUIRES(mainThread);
  void connected(std::optional<std::string> deviceId) VESKO_REQUIRES(mainThread);
  void resetDeviceScopedState() VESKO_REQUIRES(mainThread);
  void sendAssistantImport(std::string_view line, std::string_view label)
      VESKO_REQUIRES(mainThread);

  AppState& state_;
  AppLog& log_;
  MainLoop& loop_;
  DaemonChannel& daemon_;
  ImportStatus& imports_;
  DaemonRequests& requests_;
  std::optional<std::string> handshake_ VESKO_GUARDED_BY(mainThread);
};

}  // namespace vesko
