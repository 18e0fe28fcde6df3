#include "access/screen_recording_relaunch.h"

namespace vesko {

void ScreenRecordingRelaunch::update(bool granted) {
  if (!screenRecordingRelaunchGuard_.update(granted)) return;
  auto& [state, log, defaults, application] = context_;
  log.write("screen recording newly granted; scheduling one-shot app relaunch");
  state.screenRecordingRestartPending.set(true);
  // Without the mark on the disk there is no loop either: the next instance starts with the grant.
  if (auto saved = defaults.set(defaultsKeys::screenRecordingRelaunchPending, true); !saved)
    log.write("ERROR settings could not be saved: " + saved.error());
  if (auto started = application.relaunch(); !started) {
    defaults.remove(defaultsKeys::screenRecordingRelaunchPending);
    state.screenRecordingRestartPending.set(false);
    log.write("ERROR could not start screen recording relaunch helper: " + started.error());
    return;
  }
  log.write("screen recording relaunch helper started");
}

}  // namespace vesko
