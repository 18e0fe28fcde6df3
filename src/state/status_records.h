// The daemon's progress reports on history export and assistant import, as its lines carry them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "base/json_record.h"

namespace vesko {

enum class HistoryExportState { snapshotting, exporting, complete, failed };
enum class AssistantImportState { detecting, snapshotting, uploading, complete, failed };
enum class AssistantImportSource { openclaw, hermes };

template <>
struct json::EnumNames<HistoryExportState> {
  static constexpr std::array values{
      std::pair{HistoryExportState::snapshotting, std::string_view("snapshotting")},
      std::pair{HistoryExportState::exporting, std::string_view("exporting")},
      std::pair{HistoryExportState::complete, std::string_view("complete")},
      std::pair{HistoryExportState::failed, std::string_view("failed")}};
};

template <>
struct json::EnumNames<AssistantImportState> {
  static constexpr std::array values{
      std::pair{AssistantImportState::detecting, std::string_view("detecting")},
      std::pair{AssistantImportState::snapshotting, std::string_view("snapshotting")},
      std::pair{AssistantImportState::uploading, std::string_view("uploading")},
      std::pair{AssistantImportState::complete, std::string_view("complete")},
      std::pair{AssistantImportState::failed, std::string_view("failed")}};
};

template <>
struct json::EnumNames<AssistantImportSource> {
  static constexpr std::array values{
      std::pair{AssistantImportSource::openclaw, std::string_view("openclaw")},
      std::pair{AssistantImportSource::hermes, std::string_view("hermes")}};
};

struct HistoryExportStatus {
  HistoryExportState state = HistoryExportState::snapshotting;
  std::int64_t pagesSent = 0;
  std::int64_t pagesTotal = 0;
  std::int64_t conversations = 0;
  std::int64_t messages = 0;
  std::int64_t chunksQueued = 0;
  std::int64_t ignoredOldMessages = 0;
  std::optional<std::string> error;

  static constexpr auto jsonFields() {
    using T = HistoryExportStatus;
    return std::tuple{json::field("state", &T::state),
                      json::field("pagesSent", &T::pagesSent),
                      json::field("pagesTotal", &T::pagesTotal),
                      json::field("conversations", &T::conversations),
                      json::field("messages", &T::messages),
                      json::field("chunksQueued", &T::chunksQueued),
                      json::field("ignoredOldMessages", &T::ignoredOldMessages),
                      json::field("error", &T::error)};
  }
};

struct DetectedSource {
  AssistantImportSource source = AssistantImportSource::openclaw;
  std::string rootPath;
  std::string variant;

  static constexpr auto jsonFields() {
    using T = DetectedSource;
    return std::tuple{json::field("source", &T::source), json::field("rootPath", &T::rootPath),
                      json::field("variant", &T::variant)};
  }
};

struct AssistantImportStatus {
  AssistantImportState state = AssistantImportState::detecting;
  AssistantImportSource source = AssistantImportSource::openclaw;
  std::int64_t pagesSent = 0;
  std::int64_t pagesTotal = 0;
  std::int64_t files = 0;
  std::int64_t bytes = 0;
  std::int64_t cronJobs = 0;
  std::int64_t redactions = 0;
  std::int64_t skippedOversized = 0;
  bool detectionComplete = false;
  std::vector<DetectedSource> detectedSources;
  std::optional<std::string> error;

  static constexpr auto jsonFields() {
    using T = AssistantImportStatus;
    return std::tuple{json::field("state", &T::state),
                      json::field("source", &T::source),
                      json::field("pagesSent", &T::pagesSent),
                      json::field("pagesTotal", &T::pagesTotal),
                      json::field("files", &T::files),
                      json::field("bytes", &T::bytes),
                      json::field("cronJobs", &T::cronJobs),
                      json::field("redactions", &T::redactions),
                      json::field("skippedOversized", &T::skippedOversized),
                      json::field("detectionComplete", &T::detectionComplete),
                      json::field("detectedSources", &T::detectedSources),
                      json::field("error", &T::error)};
  }
};

}  // namespace vesko
