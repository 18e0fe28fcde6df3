#include "state/app_state.h"

namespace vesko {
namespace {

// Consumed before anything else reads the defaults, so that a crash during this start does not
// make the next one believe in the relaunch again.
bool consumeRelaunchMarker(UserDefaults& defaults) {
  const bool pending = defaults.flag(defaultsKeys::screenRecordingRelaunchPending);
  if (pending) defaults.remove(defaultsKeys::screenRecordingRelaunchPending);
  defaults.remove(defaultsKeys::historyImportEnabled);
  return pending;
}

}  // namespace

AppState::AppState(UserDefaults& defaults)
    : keepAwake(observers_, AppField::keepAwake, false),
      screenRecordingRelaunch(consumeRelaunchMarker(defaults)) {
  keepAwake.set(defaults.flag(defaultsKeys::keepAwake));
}

}  // namespace vesko
