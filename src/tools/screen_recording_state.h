// What this process knows of its permission to record the screen. The desktop lets a process
// record only when the permission was in force at its start, so a change needs a relaunch.
#pragma once

#include "base/mutex.h"
#include "platform/permissions.h"

namespace vesko {

/// Made once, at application start, and kept for the life of the process. Any thread.
class ScreenRecordingProcessState {
 public:
  explicit ScreenRecordingProcessState(PermissionProbes& probes)
      : probes_(probes),
        launchedWithAccess_(probes.screenCaptureAllowed()),
        lostSinceLaunch_(!launchedWithAccess_) {}

  bool launchedWithAccess() const { return launchedWithAccess_; }

  bool lostSinceLaunch() {
    const MutexLock lock(mutex_);
    return lostSinceLaunch_;
  }

  /// Probes the permission. Once it was seen missing the answer stays false.
  bool probeAllowsCapture() {
    const bool allowed = probes_.screenCaptureAllowed();
    const MutexLock lock(mutex_);
    if (!allowed) lostSinceLaunch_ = true;
    return launchedWithAccess_ && !lostSinceLaunch_;
  }

 private:
  PermissionProbes& probes_;
  const bool launchedWithAccess_;
  Mutex mutex_;
  bool lostSinceLaunch_ VESKO_GUARDED_BY(mutex_);
};

/// Decides when a permission granted while the application runs triggers its one relaunch.
class ScreenRecordingRelaunchGuard {
 public:
  /// `relaunchWasPending`: the previous process ended in order to be relaunched for the grant.
  ScreenRecordingRelaunchGuard(bool launchedWithAccess, bool relaunchWasPending)
      : wasGranted_(launchedWithAccess),
        suppressNextGrantTransition_(relaunchWasPending && !launchedWithAccess) {}

  /// Takes a freshly read permission; true when the relaunch is to be scheduled now.
  [[nodiscard]] bool update(bool granted) {
    const bool newlyGranted = granted && !wasGranted_;
    wasGranted_ = granted;
    if (!newlyGranted) return false;
    if (suppressNextGrantTransition_) {
      // The application has just been relaunched for this grant: another relaunch would loop.
      suppressNextGrantTransition_ = false;
      return false;
    }
    if (relaunchScheduled_) return false;
    relaunchScheduled_ = true;
    return true;
  }

 private:
  bool wasGranted_;
  bool suppressNextGrantTransition_;
  bool relaunchScheduled_ = false;
};

}  // namespace vesko
