#include "control_server/router.h"

#include <algorithm>

#include "base/digest.h"

namespace vesko {
namespace {

struct HealthResponse {
  bool ok = true;
  static constexpr auto jsonFields() { return std::tuple{json::field("ok", &HealthResponse::ok)}; }
};

struct StatusResponse {
  bool screenRecording = false;
  bool accessibility = false;
  AutomationState messagesAutomation = AutomationState::unavailable;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("screen_recording", &StatusResponse::screenRecording),
                      json::field("accessibility", &StatusResponse::accessibility),
                      json::field("messages_automation", &StatusResponse::messagesAutomation)};
  }
};

}  // namespace

HTTPResponse invalidRequestResponse() {
  return errorResponse(400, "invalid request");
}

std::vector<Route> coreRoutes(PermissionProbes& probes) {
  const auto health = [](const HTTPRequest&) { return jsonResponse(200, HealthResponse{}); };
  const auto status = [&probes](const HTTPRequest&) {
    return jsonResponse(
        200, StatusResponse{probes.screenCaptureAllowed(), probes.accessibilityTrusted(),
                            automationState(probes.automation(AutomationTarget::messages))});
  };
  return {{"GET", "/healthz", Precondition::none, health, RunsOn::ioThread},
          {"GET", "/status", Precondition::none, status}};
}

Router::Router(std::vector<Route> routes, std::string_view token, PermissionProbes& probes)
    : routes_(std::move(routes)), authorization_("Bearer " + std::string(token)), probes_(probes) {}

bool Router::authorized(const HTTPRequest& request) const {
  const std::string* given = request.header("authorization");
  return given && constantTimeEqual(*given, authorization_);
}

std::expected<const Route*, HTTPResponse> Router::admit(const HTTPRequest& request) const {
  if (!authorized(request)) return std::unexpected(errorResponse(401, "unauthorized"));
  const auto found = std::ranges::find_if(routes_, [&](const Route& route) {
    return route.method == request.method && route.path == request.path;
  });
  if (found == routes_.end()) return std::unexpected(errorResponse(404, "not found"));
  return &*found;
}

HTTPResponse Router::run(const Route& route, const HTTPRequest& request) const {
  if (route.precondition == Precondition::accessibility && !probes_.accessibilityTrusted())
    return permissionResponse("accessibility");
  return route.handler(request);
}

}  // namespace vesko
