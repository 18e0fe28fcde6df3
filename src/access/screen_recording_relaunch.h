// The one relaunch of the application that makes a screen-recording grant effective. Main thread.
#pragma once

#include "platform/application_lifetime.h"
#include "state/app_log.h"
#include "state/app_state.h"
#include "state/user_defaults.h"
#include "tools/screen_recording_state.h"

namespace vesko {

class ScreenRecordingRelaunch {
 public:
  struct Context {
    AppState& state;
    AppLog& log;
    UserDefaults& defaults;
    ApplicationLifetime& application;
  };

  ScreenRecordingRelaunch(Context context, bool launchedWithAccess)
      : context_(context),
        screenRecordingRelaunchGuard_(launchedWithAccess, context.state.screenRecordingRelaunch) {}

  /// Takes each fresh reading of the permission.
  void update(bool granted) VESKO_REQUIRES(mainThread);

 private:
  Context context_;
  ScreenRecordingRelaunchGuard screenRecordingRelaunchGuard_ VESKO_GUARDED_BY(mainThread);
};

}  // namespace vesko
