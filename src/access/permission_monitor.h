// Reads the permissions every second and publishes what changed. Main thread.
//
// The probes may wait for other processes, so they are called on a background queue; a reading
// carries the revision that was current when it began and is dropped once another replaces it.
// Where the desktop tells that nothing has changed a tick costs no more than that question.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "access/daemon_grants.h"
#include "access/protected_grants.h"
#include "access/screen_recording_relaunch.h"
#include "base/background_queue.h"
#include "base/main_loop.h"
#include "platform/permissions.h"
#include "state/app_state.h"

namespace vesko {

class PermissionMonitor {
 public:
  static constexpr Duration interval = std::chrono::seconds(1);

  /// All outlive the monitor; the probes and grants also the queue's last job.
  struct Context {
    AppState& state;
    MainLoop& loop;
    BackgroundQueue& queue;
    PermissionProbes& probes;
    ProtectedGrants& grants;
    DaemonGrantWatch& daemonGrants;
    ScreenRecordingRelaunch& relaunch;
  };

  explicit PermissionMonitor(Context context) : context_(context) {}

  /// Reads what a daemon is told at its launch, on this thread: before the first launch.
  void seed() VESKO_REQUIRES(mainThread);
  /// Cancels a running monitor and begins anew: one reading at once, then one each interval.
  void start() VESKO_REQUIRES(mainThread);
  /// Also drops the readings under way.
  void stop() VESKO_REQUIRES(mainThread);
  /// Begins a reading that replaces those under way.
  void refresh() VESKO_REQUIRES(mainThread);

 private:
  struct Reading {
    bool accessibility = false;
    bool screenRecording = false;
    PhotosPermission photos = PhotosPermission::notDetermined;
    AutomationStatus messages;
    AutomationStatus notes;
    DaemonGrantReading grants;
  };
  /// Of the permissions and of the other grants; nothing when one of them does not tell.
  using ChangeCount = std::optional<std::pair<std::uint64_t, std::uint64_t>>;

  static DaemonGrantReading readGrants(PermissionProbes& probes, ProtectedGrants& grants);
  static Reading read(PermissionProbes& probes, ProtectedGrants& grants);

  ChangeCount changeCount() const;
  void sleep() VESKO_REQUIRES(mainThread);
  void tick() VESKO_REQUIRES(mainThread);
  void beginReading() VESKO_REQUIRES(mainThread);
  void finishReading(std::uint64_t revision, ChangeCount count, const Reading& reading)
      VESKO_REQUIRES(mainThread);
  void publish(const Reading& reading) VESKO_REQUIRES(mainThread);

  Context context_;
  Timer macControlPermissionMonitorTask_ VESKO_GUARDED_BY(mainThread);
  std::optional<std::uint64_t> underWay_ VESKO_GUARDED_BY(mainThread);  ///< its revision
  ChangeCount published_ VESKO_GUARDED_BY(mainThread);
  /// Results that arrive later than the monitor lives find it gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vesko
