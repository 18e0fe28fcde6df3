#include "state/import_status.h"

#include <fmt/format.h>

namespace vesko {

void ImportStatus::report(HistoryExportStatus status) {
  state_.historyExportStatus.set(std::move(status));
}

void ImportStatus::report(AssistantImportStatus status) {
  const bool detection = state_.assistantImportDetectionInFlight;
  if (status.state == AssistantImportState::failed && detection) {
    log_.write("ERROR assistant import detection failed: " +
               status.error.value_or("unknown error"));
    state_.assistantImportDetectionInFlight = false;
  }
  if (status.detectionComplete) {
    state_.assistantImportDetectionInFlight = false;
    state_.detectedAssistantSources.set(status.detectedSources);
  }
  if (status.state == AssistantImportState::complete && !detection)
    state_.completedAssistantImportSources.insert(status.source);
  state_.assistantImportStatus.set(std::move(status));
}

void ImportStatus::interrupted(std::string_view cause) {
  const auto& status = state_.assistantImportStatus.get();
  const bool working = status && status->state != AssistantImportState::complete &&
                       status->state != AssistantImportState::failed;
  if (!working && !state_.assistantImportDetectionInFlight) return;
  log_.write(fmt::format("assistant import interrupted by {}; clearing in-flight status", cause));
  state_.assistantImportDetectionInFlight = false;
  state_.assistantImportStatus.set(std::nullopt);
}

void ImportStatus::reset() {
  state_.historyExportStatus.set(std::nullopt);
  state_.assistantImportStatus.set(std::nullopt);
  state_.assistantImportDetectionInFlight = false;
  state_.completedAssistantImportSources.clear();
}

}  // namespace vesko
