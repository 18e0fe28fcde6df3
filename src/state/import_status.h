// Keeps what the daemon reports of history export and assistant import. Main thread.
#pragma once

#include <functional>
#include <string_view>

#include "state/app_log.h"
#include "state/app_state.h"

namespace vesko {

class ImportStatus {
 public:
  ImportStatus(AppState& state, AppLog& log) : state_(state), log_(log) {}

  void report(HistoryExportStatus status) VESKO_REQUIRES(mainThread);
  void report(AssistantImportStatus status) VESKO_REQUIRES(mainThread);

  /// The daemon that worked on it is gone: `cause` names why, for the log.
  void interrupted(std::string_view cause) VESKO_REQUIRES(mainThread);

  /// Back to nothing reported, when the device is no longer paired.
  void reset() VESKO_REQUIRES(mainThread);

 private:
  AppState& state_;
  AppLog& log_;
};

}  // namespace vesko
