#include "control_server/permission_routes.h"

#include <optional>
#include <string>
#include <tuple>
#include <utility>

namespace vesko {
namespace {

struct MessagesAutomationPermissionResponse {
  bool granted = false;
  std::optional<bool> alreadyGranted{};
  std::optional<std::string> error{};
  std::optional<std::string> reason{};

  static constexpr auto jsonFields() {
    using T = MessagesAutomationPermissionResponse;
    return std::tuple{json::field("granted", &T::granted),
                      json::field("already_granted", &T::alreadyGranted),
                      json::field("error", &T::error), json::field("reason", &T::reason)};
  }
};

MessagesAutomationPermissionResponse responseTo(const MessagesAutomationOutcome& outcome) {
  using Kind = AutomationStatus::Kind;
  const auto refused = [](std::string error, std::string reason) {
    return MessagesAutomationPermissionResponse{.error = std::move(error),
                                                .reason = std::move(reason)};
  };
  switch (outcome.status.kind) {
    case Kind::granted:
      return {.granted = true,
              .alreadyGranted = outcome.alreadyGranted ? std::optional(true) : std::nullopt};
    case Kind::notDetermined:
      return refused("approval_required", "macOS Automation approval is still required");
    case Kind::denied:
      return refused("approval_required",
                     "Messages Automation is denied; enable it in System Settings");
    case Kind::notRunning:
      return refused("request_failed", "Messages is not running and could not be launched");
    case Kind::unavailable:
      return refused("request_failed", "Messages Automation request failed with OSStatus " +
                                           std::to_string(outcome.status.code));
    case Kind::unknown:
      break;
  }
  return refused("request_failed", "Messages Automation request returned an unknown status");
}

bool operates(std::string_view path) {
  return path.starts_with("/input/") || path == "/ax/action" || path == "/ax/set-value" ||
         path.starts_with("/app/") || (path.starts_with("/window/") && path != "/window/list");
}

}  // namespace

std::expected<void, std::string> mayOperate(PermissionProbes& probes) {
  if (!probes.privacyWindowShown()) return {};
  return std::unexpected("a privacy window is open; only the user may operate it");
}

std::vector<Route> leavePrivacyToTheUser(std::vector<Route> routes, PermissionProbes& probes) {
  for (Route& route : routes) {
    if (!operates(route.path)) continue;
    route.handler = [&probes, act = std::move(route.handler)](const HTTPRequest& request) {
      if (const auto may = mayOperate(probes); !may) return errorResponse(400, may.error());
      return act(request);
    };
  }
  return routes;
}

std::vector<Route> permissionRoutes(std::function<MessagesAutomationOutcome()> request) {
  return {{"POST", "/permissions/messages-automation", Precondition::none,
           [request = std::move(request)](const HTTPRequest&) {
             return jsonResponse(200, responseTo(request()));
           }}};
}

}  // namespace vesko
