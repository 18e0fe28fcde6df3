#include "helper/companion_input.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/text.h"

namespace vesko {
namespace {

std::string_view textOf(const json::Value& message, std::string_view key) {
  const json::Value* value = message.find(key);
  const std::string* text = value ? value->asString() : nullptr;
  return text ? std::string_view(*text) : std::string_view();
}

bool isKind(std::string_view text) {
  return !text.empty() && text.size() <= 40 && std::ranges::all_of(text, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '.';
  });
}

}  // namespace

void CompanionInput::handleLine(std::string_view line) {
  if (trim(line).empty()) return;
  const auto message = json::parse(line);
  if (!message || !message->asObject())
    return reporter_.log("dropped a line from the companion that is not a JSON object");
  if (const auto kind = textOf(*message, "veskokit"); !kind.empty()) {
    kind == "control_server" ? announce(*message) : unknown(kind);
  } else if (const auto name = textOf(*message, "cmd"); !name.empty()) {
    command(name, *message);
  } else {
    notice(textOf(*message, "type"), *message);
  }
}

void CompanionInput::announce(const json::Value& message) {
  ControlEndpoint endpoint;
  if (auto decoded = json::decodeInto(message, endpoint); !decoded)
    return reporter_.log("ignored an announcement of the control server: " +
                         decoded.error().message);
  if (!endpoint.usable())
    return reporter_.log("ignored an announcement of the control server with unusable values");
  reporter_.log(fmt::format("control server announced on port {}", endpoint.port));
  controlServer_ = std::move(endpoint);
}

void CompanionInput::command(std::string_view name, const json::Value& message) {
  if (name == "assistant_import_detect" || name == "assistant_import_start") {
    AssistantImportStatus status;
    // Nothing to import is what a search for it finds; only who starts an import is told of a
    // failure.
    const bool detection = name == "assistant_import_detect";
    status.state = detection ? AssistantImportState::complete : AssistantImportState::failed;
    status.detectionComplete = true;
    // The record wants a source even where, as in a detection, there is none.
    if (textOf(message, "source") == json::wordOf(AssistantImportSource::hermes))
      status.source = AssistantImportSource::hermes;
    if (!detection) status.error = "assistant import is not available in the local helper";
    reporter_.import(status);
  } else if (name == "history_export_start") {
    HistoryExportStatus status;
    status.state = HistoryExportState::failed;
    status.error = "history export is not available in the local helper";
    reporter_.history(status);
  } else {
    unknown(name);
  }
}

void CompanionInput::notice(std::string_view type, const json::Value& message) {
  if (type == "granted_dirs") {
    const json::Value* dirs = message.find("dirs");
    std::vector<std::string> paths;
    if (!dirs || !json::decodeInto(*dirs, paths))
      return reporter_.log("ignored a granted_dirs line without a list of paths");
    grantedDirs_ = std::move(paths);
    reporter_.log(fmt::format("granted folders: {}", grantedDirs_.size()));
  } else if (type == "photos_library") {
    const auto path = textOf(message, "path");
    photosLibrary_ = path.empty() ? std::nullopt : std::optional<std::string>(path);
    reporter_.log(photosLibrary_ ? "Photos library granted" : "Photos library withdrawn");
  } else if (type == "system_will_sleep") {
    reporter_.log("the system is going to sleep");
  } else if (type == "system_did_wake") {
    reporter_.log("the system woke up");
  } else {
    unknown(type);
  }
}

void CompanionInput::unknown(std::string_view kind) {
  reporter_.log(isKind(kind) ? fmt::format("ignored a line of kind {} from the companion", kind)
                             : "ignored a line of unknown kind from the companion");
}

}  // namespace vesko
