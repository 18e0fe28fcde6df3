// The application itself: constructs what the rooms offer, in the order they need each other, and
// starts and ends it. Main thread.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "access/automation_approval.h"
#include "access/daemon_grants.h"
#include "access/permission_monitor.h"
#include "access/permissions.h"
#include "access/protected_grants.h"
#include "access/screen_recording_relaunch.h"
#include "app/instance_lock.h"
#include "base/background_queue.h"
#include "base/bundle.h"
#include "base/directories.h"
#include "base/main_loop.h"
#include "control_server/control_server.h"
#include "platform/accessibility.h"
#include "platform/application_lifetime.h"
#include "platform/applications.h"
#include "platform/host_names.h"
#include "platform/input_events.h"
#include "platform/pasteboard.h"
#include "platform/permission_requests.h"
#include "platform/permissions.h"
#include "platform/photo_library.h"
#include "platform/picture_codec.h"
#include "platform/process_host.h"
#include "platform/screen_source.h"
#include "state/control_lines.h"
#include "state/daemon_supervisor.h"
#include "tools/accessibility_control.h"
#include "tools/app_window_control.h"
#include "tools/input_control.h"
#include "tools/photos_export.h"
#include "tools/screen_capture.h"
#include "tools/screen_recording_state.h"

namespace vesko {

/// The desktop's services. All of them outlive the application.
struct Platform {
  MainLoop& loop;
  ProcessHost& processes;
  HostNames& hostNames;
  PermissionProbes& permissions;
  PermissionRequests& permissionRequests;
  ApplicationLifetime& application;
  InputEvents& input;
  Pasteboard& pasteboard;
  ScreenSource& screen;
  Accessibility& accessibility;
  Applications& applications;
  WindowSystem& windows;
  PhotoLibrary& photoLibrary;
  PictureCodec& pictures;
};

/// Who and where this process is.
struct ProcessIdentity {
  Bundle bundle;
  Directories directories;
  std::filesystem::path executable;
  Environment environment;
  pid_t processId;
};

class Companion {
 public:
  /// Null when another instance already runs: its settings and its daemon were not touched then.
  static std::unique_ptr<Companion> create(Platform platform, ProcessIdentity identity);
  ~Companion();

  /// Once.
  void start() VESKO_REQUIRES(mainThread);

  /// Stops the daemon and the control server and calls `done` once the daemon has ended: at its own
  /// pace, or killed after the grace time. Once.
  void terminate(Closure done) VESKO_REQUIRES(mainThread);

  const AppState& state() const { return state_; }

 private:
  class Requests;

  Companion(Platform platform, ProcessIdentity identity, InstanceLock instance);
  void startControlServer() VESKO_REQUIRES(mainThread);
  DaemonLaunchInputs launchInputs(std::optional<std::string> pairingCode) const;

  Platform platform_;
  ProcessIdentity identity_;
  InstanceLock instance_;
  AppLog log_;
  UserDefaults defaults_;
  AppState state_;
  ProcessKiller killer_;
  ImportStatus imports_;
  std::unique_ptr<Requests> requests_;
  DaemonSupervisor supervisor_;
  ControlLines lines_;
  InputControl inputControl_;
  ScreenRecordingProcessState screenRecording_;
  ScreenCaptureService screenCapture_;
  AccessibilityControl accessibilityControl_;
  AppWindowControl appWindowControl_;
  PhotosExportService photosExport_;
  ProtectedGrants protectedGrants_;
  DaemonGrantWatch daemonGrants_;
  ScreenRecordingRelaunch screenRecordingRelaunch_;
  SerialQueue permissionReadings_;
  PermissionMonitor permissionMonitor_;
  Permissions permissions_;
  AutomationApproval automationApproval_;
  // Last: its workers use the tools above until it is gone.
  std::unique_ptr<ControlServer> controlServer_;
};

}  // namespace vesko
