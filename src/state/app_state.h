// The one observable object that the application shares: its fields and nothing else. The classes
// beside it (DaemonSupervisor, ControlLines, ...) borrow it and hold the algorithms.
//
// Main thread; created once at start, lives as long as the process.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/main_loop.h"
#include "base/main_thread.h"
#include "platform/permissions.h"
#include "state/published.h"
#include "state/status.h"
#include "state/status_records.h"
#include "state/user_defaults.h"

namespace vesko {

namespace defaultsKeys {
inline constexpr std::string_view screenRecordingRelaunchPending = "ScreenRecordingRelaunchPending";
inline constexpr std::string_view historyImportEnabled = "historyImportEnabled";
inline constexpr std::string_view keepAwake = "KeepAwakeForVesko";
inline constexpr std::string_view relayUrl = "RelayURL";
}  // namespace defaultsKeys

enum class AppField {
  status,
  messagesAccessGranted,
  notesAccessGranted,
  photosPermission,
  photosLibraryGranted,
  contactsGranted,
  screenRecordingGranted,
  accessibilityGranted,
  screenRecordingRestartPending,
  grantedFolders,
  automationStatus,
  notesAutomationStatus,
  pairing,
  hasDeviceToken,
  historyExportStatus,
  assistantImportStatus,
  detectedAssistantSources,
  keepAwake,
  lidClosedAwakeActive,
};

/// A launch asked for while wipes of an unpaired account still run.
struct HeldDaemonLaunch {
  bool held = false;
  std::optional<std::string> pairingCode;
};

class AppState {
 private:
  Observers<AppField> observers_;

  template <class T>
  using Field = Published<AppField, T>;

 public:
  /// Reads and clears the start-up keys of the user defaults. `defaults` is borrowed only for the
  /// call.
  explicit AppState(UserDefaults& defaults);

  /// Called after each set, with the field that was set.
  [[nodiscard]] Subscription observe(std::function<void(AppField)> observer) {
    return observers_.add(std::move(observer));
  }

  // Published fields.
  Field<Status> status{observers_, AppField::status, Status::connecting()};
  Field<bool> messagesAccessGranted{observers_, AppField::messagesAccessGranted, false};
  Field<bool> notesAccessGranted{observers_, AppField::notesAccessGranted, false};
  Field<PhotosPermission> photosPermission{observers_, AppField::photosPermission,
                                           PhotosPermission::notDetermined};
  Field<bool> photosLibraryGranted{observers_, AppField::photosLibraryGranted, false};
  Field<bool> contactsGranted{observers_, AppField::contactsGranted, false};
  Field<bool> screenRecordingGranted{observers_, AppField::screenRecordingGranted, false};
  Field<bool> accessibilityGranted{observers_, AppField::accessibilityGranted, false};
  Field<bool> screenRecordingRestartPending{observers_, AppField::screenRecordingRestartPending,
                                            false};
  /// Absolute paths.
  Field<std::vector<std::string>> grantedFolders{observers_, AppField::grantedFolders, {}};
  Field<AutomationStatus> automationStatus{observers_, AppField::automationStatus, {}};
  Field<AutomationStatus> notesAutomationStatus{observers_, AppField::notesAutomationStatus, {}};
  Field<bool> pairing{observers_, AppField::pairing, false};
  Field<bool> hasDeviceToken{observers_, AppField::hasDeviceToken, false};
  Field<std::optional<HistoryExportStatus>> historyExportStatus{
      observers_, AppField::historyExportStatus, std::nullopt};
  Field<std::optional<AssistantImportStatus>> assistantImportStatus{
      observers_, AppField::assistantImportStatus, std::nullopt};
  Field<std::vector<DetectedSource>> detectedAssistantSources{
      observers_, AppField::detectedAssistantSources, {}};
  Field<bool> keepAwake;
  Field<bool> lidClosedAwakeActive{observers_, AppField::lidClosedAwakeActive, false};

  // Plain fields.
  std::function<void()> appUpdateCheckHandler VESKO_GUARDED_BY(mainThread);
  bool assistantImportDetectionInFlight VESKO_GUARDED_BY(mainThread) = false;
  std::optional<std::string> pairingCodeDigestInFlight VESKO_GUARDED_BY(mainThread);
  std::set<AssistantImportSource> completedAssistantImportSources VESKO_GUARDED_BY(mainThread);
  std::optional<std::string> currentDeviceID VESKO_GUARDED_BY(mainThread);
  /// Incremented by every stop of the daemon; notices of an older one are stale.
  std::uint64_t daemonGeneration VESKO_GUARDED_BY(mainThread) = 0;
  Duration restartDelay VESKO_GUARDED_BY(mainThread) = std::chrono::seconds(1);
  std::optional<TimePoint> connectedAt VESKO_GUARDED_BY(mainThread);
  Duration stableConnectionWindow VESKO_GUARDED_BY(mainThread) = std::chrono::seconds(60);
  /// Grows with every reading of the permissions that replaces those under way; results of an
  /// older one are stale.
  std::uint64_t permissionRefreshRevision VESKO_GUARDED_BY(mainThread) = 0;
  /// contactsGranted holds what was found, so that a difference is a change by the user.
  bool contactsPermissionBaselineSeeded VESKO_GUARDED_BY(mainThread) = false;
  std::optional<std::string> pairingCodeForRelaunch VESKO_GUARDED_BY(mainThread);
  /// Names of the data wipes that still run after an unpair.
  std::set<std::string> unpairWipesPending VESKO_GUARDED_BY(mainThread);
  HeldDaemonLaunch heldDaemonLaunch VESKO_GUARDED_BY(mainThread);
  /// This launch finishes a screen-recording grant made in the run before.
  const bool screenRecordingRelaunch;
};

}  // namespace vesko
