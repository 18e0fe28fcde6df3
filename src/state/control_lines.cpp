#include "state/control_lines.h"

#include <fmt/format.h>

#include <tuple>

#include "base/json_record.h"
#include "base/text.h"

namespace vesko {
namespace {

constexpr std::string_view socialPrefix = "[veskokit:social] ";
constexpr std::string_view socialPayload = "[veskokit:social] {";
constexpr std::string_view importPrefix = "[veskokit:assistant-import] ";
constexpr std::string_view historyPrefix = "[veskokit:history] ";
constexpr std::string_view statusPrefix = "[veskokit-status] ";
constexpr std::string_view relayConnected = "[veskokit] relay connected as device ";

struct DaemonAppControlRequest {
  std::string veskokit;
  std::optional<std::string> path;
  std::optional<std::string> scope;

  static constexpr auto jsonFields() {
    using T = DaemonAppControlRequest;
    return std::tuple{json::field("veskokit", &T::veskokit), json::field("path", &T::path),
                      json::field("scope", &T::scope)};
  }
};

struct DaemonPresenceStatus {
  std::string state;
  std::optional<std::string> deviceId;

  static constexpr auto jsonFields() {
    using T = DaemonPresenceStatus;
    return std::tuple{json::field("state", &T::state), json::field("deviceId", &T::deviceId)};
  }
};

struct GrantedDirsControlMessage {
  std::string type = "granted_dirs";
  std::vector<std::string> dirs;

  static constexpr auto jsonFields() {
    using T = GrantedDirsControlMessage;
    return std::tuple{json::field("type", &T::type), json::field("dirs", &T::dirs)};
  }
};

struct PhotosLibraryControlMessage {
  std::string type = "photos_library";
  std::optional<std::string> path;

  static constexpr auto jsonFields() {
    using T = PhotosLibraryControlMessage;
    return std::tuple{json::field("type", &T::type), json::field("path", &T::path)};
  }
};

// The part of the line behind `prefix`, when it has it.
std::optional<std::string_view> behind(std::string_view line, std::string_view prefix) {
  if (!line.starts_with(prefix)) return std::nullopt;
  return line.substr(prefix.size());
}

}  // namespace

void DaemonRequests::requestHomeFolder() {
  log_.write("ERROR home folder grant requested without folder access");
}
void DaemonRequests::requestFolder(const std::string&) {
  log_.write("ERROR folder grant requested without folder access");
}
void DaemonRequests::withdrawFolder(const std::string&) {
  log_.write("ERROR folder grant withdrawal requested without folder access");
}
void DaemonRequests::requestPhotosAccess() {
  log_.write("ERROR Photos access requested without Photos setup");
}

void ControlLines::daemonLine(std::string_view line, bool headLost) {
  assertMainThread();
  handleDaemonLine(line, headLost);
}

void ControlLines::handleDaemonLine(std::string_view line, bool headLost) {
  logLine(line, headLost);
  if (const auto message = behind(line, socialPrefix)) return requests_.socialMessage(*message);
  if (handleRequest(line)) return;
  if (const auto record = behind(line, importPrefix)) {
    if (auto status = json::decode<AssistantImportStatus>(*record)) {
      imports_.report(std::move(*status));
    } else {
      log_.write("ERROR invalid assistant import status line: " + status.error().message);
    }
  } else if (const auto history = behind(line, historyPrefix)) {
    if (auto status = json::decode<HistoryExportStatus>(*history)) {
      imports_.report(std::move(*status));
    } else {
      log_.write("ERROR invalid history status line: " + status.error().message);
    }
  } else if (const auto presence = behind(line, statusPrefix)) {
    handlePresence(*presence);
  } else {
    handleText(line);
  }
}

void ControlLines::logLine(std::string_view line, bool headLost) {
  if (line.empty()) return;
  if (headLost) {
    log_.write("daemon: {redacted}");  // it may be the end of a social payload
  } else if (const auto marker = line.find(socialPayload); marker != std::string_view::npos) {
    log_.write(fmt::format("daemon: {}{}{{redacted}}", line.substr(0, marker), socialPrefix));
  } else {
    log_.write(fmt::format("daemon: {}", line));
  }
}

bool ControlLines::handleRequest(std::string_view line) {
  // Only an object can be a request; most lines are not, and need no parser to tell.
  const auto first = line.find_first_not_of(" \t\r");
  if (first == std::string_view::npos || line[first] != '{') return false;
  const auto request = json::decode<DaemonAppControlRequest>(line);
  if (!request) return false;
  handleAppControl(request->veskokit, request->path, request->scope);
  return true;
}

void ControlLines::handleAppControl(const std::string& kind, const std::optional<std::string>& path,
                                    const std::optional<std::string>& scope) {
  if (kind == "app_update_check") {
    if (state_.appUpdateCheckHandler) {
      state_.appUpdateCheckHandler();
      log_.write("started background app update check");
    } else {
      log_.write("ERROR app update check requested without update handler");
    }
  } else if (kind == "request_folder_grant") {
    if (scope == "home") {
      requests_.requestHomeFolder();
    } else if (path) {
      requests_.requestFolder(*path);
    } else {
      log_.write("ignoring folder grant request with no path and no home scope");
    }
  } else if (kind == "request_photos_access") {
    requests_.requestPhotosAccess();
  } else if (kind == "withdraw_folder_grant") {
    if (path) requests_.withdrawFolder(*path);
  }
}

void ControlLines::handlePresence(std::string_view record) {
  const auto presence = json::decode<DaemonPresenceStatus>(record);
  if (!presence) {
    log_.write("ERROR invalid presence status line: " + presence.error().message);
  } else if (presence->state == "connecting") {
    state_.status.set(Status::connecting());
  } else if (presence->state == "connected") {
    connected(presence->deviceId);
  } else if (presence->state == "backend_unreachable") {
    state_.status.set(Status::backendUnreachable());
  } else if (presence->state == "unpaired_takeover") {
    resetDeviceScopedState();
    state_.status.set(Status::unpairedTakeover());
  } else {
    log_.write("unknown daemon presence state=" + presence->state);
  }
}

void ControlLines::handleText(std::string_view line) {
  const auto contains = [line](std::string_view part) {
    return line.find(part) != std::string_view::npos;
  };
  if (const auto at = line.find(relayConnected); at != std::string_view::npos) {
    connected(std::string(trim(line.substr(at + relayConnected.size()))));
  } else if (contains("pairing rejected")) {
    if (state_.pairingCodeDigestInFlight) requests_.retirePairingCode();
    state_.status.set(Status::error(
        "Pairing code rejected. It expired or was replaced. Ask Vesko for a fresh code and try "
        "again."));
  } else if (contains("no device token") || contains("revoked by backend")) {
    state_.hasDeviceToken.set(false);
    resetDeviceScopedState();
    state_.status.set(contains("revoked by backend") ? Status::unpairedTakeover()
                                                     : Status::needsCode());
    state_.pairing.set(false);
    requests_.showSetup();
  } else if (contains("disconnected")) {
    const Status::Kind kind = state_.status->kind;
    if (kind == Status::Kind::connected || kind == Status::Kind::backendUnreachable)
      state_.status.set(Status::connecting());
  }
}

void ControlLines::connected(std::optional<std::string> deviceId) {
  state_.status.set(Status::connected(deviceId.value_or("unknown")));
  state_.connectedAt = loop_.now();
  if (!deviceId) return;
  state_.currentDeviceID = deviceId;
  requests_.confirmPairing(*deviceId);
}

void ControlLines::resetDeviceScopedState() {
  state_.currentDeviceID.reset();
  imports_.reset();
}

bool ControlLines::sendDaemonControl(std::string_view line, std::string_view label) {
  const auto sent = daemon_.sendLine(line);
  if (sent) {
    log_.write(fmt::format("sent daemon control {}", label));
  } else if (sent.error().failure == DaemonChannel::Failure::unavailable) {
    log_.write(fmt::format("daemon control {} ignored: daemon unavailable", label));
  } else {
    log_.write(fmt::format("daemon control {} failed: {}", label, sent.error().message));
  }
  return sent.has_value();
}

bool ControlLines::sendDaemonLine(std::string_view line) {
  const auto sent = daemon_.sendLine(line);
  if (sent) return true;
  if (sent.error().failure == DaemonChannel::Failure::unavailable) {
    log_.write("daemon control line ignored: daemon unavailable");
  } else {
    log_.write("ERROR daemon control line failed: " + sent.error().message);
  }
  return false;
}

void ControlLines::sendAssistantImport(std::string_view line, std::string_view label) {
  const auto sent = daemon_.sendLine(line);
  if (sent) {
    log_.write(fmt::format("assistant import {} command sent", label));
  } else if (sent.error().failure == DaemonChannel::Failure::unavailable) {
    log_.write(fmt::format("assistant import {} command ignored: daemon unavailable", label));
  } else {
    log_.write(
        fmt::format("ERROR assistant import {} command failed: {}", label, sent.error().message));
  }
}

void ControlLines::controlServerReady(std::string handshake) {
  handshake_ = std::move(handshake);
  log_.write("control server ready on loopback");
  // Without a daemon there is nobody to tell: the next one is told when it starts.
  if (daemon_.daemonRunning()) sendDaemonControl(*handshake_, "control_server");
}

void ControlLines::controlServerGone() {
  handshake_.reset();
}

bool ControlLines::sendGrantedDirs(const std::vector<std::string>& folders) {
  GrantedDirsControlMessage message;
  message.dirs = folders;
  const auto line = json::encode(message);
  if (line) return sendDaemonControl(*line, "granted_dirs");
  log_.write("daemon control granted_dirs encode failed: a path is not UTF-8");
  return false;
}

bool ControlLines::sendPhotosLibrary(const std::optional<std::string>& path) {
  PhotosLibraryControlMessage message;
  message.path = path;
  const auto line = json::encode(message);
  if (line) return sendDaemonControl(*line, "photos_library");
  log_.write("daemon control photos_library encode failed: the path is not UTF-8");
  return false;
}

void ControlLines::sendSystemWillSleep() {
  sendDaemonControl(R"({"type":"system_will_sleep"})", "system_will_sleep");
}

void ControlLines::sendSystemDidWake() {
  sendDaemonControl(R"({"type":"system_did_wake"})", "system_did_wake");
}

void ControlLines::daemonStarted() {
  assertMainThread();
  if (handshake_) sendDaemonControl(*handshake_, "control_server");
  requests_.socialDaemonRestarted();
  if (state_.status->kind != Status::Kind::paused) state_.status.set(Status::connecting());
  if (state_.assistantImportDetectionInFlight) return;
  sendAssistantImport(R"({"cmd":"assistant_import_detect"})", "detection");
  state_.assistantImportDetectionInFlight = true;
}

void ControlLines::daemonStopping() {
  requests_.abortSocialStreams();
}

void ControlLines::daemonInterrupted(std::string_view cause) {
  assertMainThread();
  imports_.interrupted(cause);
}

}  // namespace vesko
