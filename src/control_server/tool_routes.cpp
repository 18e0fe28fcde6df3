#include "control_server/tool_routes.h"

namespace vesko {
namespace {

HTTPResponse inputFailure(const InputControl::ControlError& error) {
  return errorResponse(400, error.message());
}

HTTPResponse accessibilityFailure(const AccessibilityControl::ControlError& error) {
  return error.kind == AccessibilityControl::ControlError::Kind::elementGone
             ? elementGoneResponse()
             : errorResponse(400, error.message());
}

HTTPResponse captureFailure(const CaptureError& error) {
  switch (error.kind) {
    case CaptureError::Kind::invalidRequest:
      return errorResponse(400, "invalid capture request");
    case CaptureError::Kind::permissionDenied:
      return permissionResponse("screen_recording");
    default:
      return errorResponse(500, error.message);
  }
}

struct PhotosErrorBody {
  std::string error;
  std::string message;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("error", &PhotosErrorBody::error),
                      json::field("message", &PhotosErrorBody::message)};
  }
};

HTTPResponse photosFailure(const ExportError& error) {
  using Kind = ExportError::Kind;
  const auto answer = [&error](int status, const char* code) {
    return jsonResponse(status, PhotosErrorBody{code, error.message});
  };
  switch (error.kind) {
    case Kind::invalidRequest:
      return answer(400, "photos_invalid_request");
    case Kind::permissionDenied:
      return answer(403, "photos_permission_denied");
    case Kind::assetNotFound:
      return answer(422, "photos_asset_not_found");
    case Kind::videoUnsupported:
      return answer(422, "photos_video_unsupported");
    case Kind::assetTooLarge:
      return answer(422, "photos_asset_too_large");
    case Kind::originalUnavailable:
    case Kind::imageEncodingFailed:
    case Kind::libraryFailed:
      break;
  }
  return answer(500, "photos_export_unavailable");
}

/// A route to a member of a tool that needs the accessibility permission.
template <class Tool, class Request, class Response>
Route memberRoute(
    std::string_view path, Tool& tool,
    std::expected<Response, typename Tool::ControlError> (Tool::*operation)(const Request&),
    HTTPResponse (*mapError)(const typename Tool::ControlError&)) {
  return toolRoute<Request>(
      "POST", path, Precondition::accessibility,
      [&tool, operation](const Request& request) { return (tool.*operation)(request); }, mapError);
}

HTTPResponse appWindowFailure(const AppWindowControl::ControlError& error) {
  return errorResponse(400, error.message());
}

/// For what an application may simply not do; the caller is then told `refusal`.
Route askingRoute(
    std::string_view path, AppWindowControl& control, std::string_view refusal,
    AppWindowControl::Result<bool> (AppWindowControl::*operation)(const AppRequest&)) {
  using Error = AppWindowControl::ControlError;
  return toolRoute<AppRequest>(
      "POST", path, Precondition::accessibility,
      [&control, refusal,
       operation](const AppRequest& request) -> AppWindowControl::Result<OKResponse> {
        const auto done = (control.*operation)(request);
        if (!done) return std::unexpected(done.error());
        if (!*done) return std::unexpected(Error::invalid(std::string(refusal)));
        return OKResponse{};
      },
      appWindowFailure);
}

}  // namespace

std::vector<Route> accessibilityRoutes(AccessibilityControl& accessibility) {
  const auto route = [&accessibility](std::string_view path, auto operation) {
    return memberRoute(path, accessibility, operation, accessibilityFailure);
  };
  return {route("/ax/snapshot", &AccessibilityControl::snapshot),
          route("/ax/find", &AccessibilityControl::find),
          route("/ax/action", &AccessibilityControl::performAction),
          route("/ax/set-value", &AccessibilityControl::setValue)};
}

std::vector<Route> inputRoutes(InputControl& input) {
  const auto route = [&input](std::string_view path, auto operation) {
    return memberRoute(path, input, operation, inputFailure);
  };
  return {
      route("/input/move", &InputControl::move),
      route("/input/click", &InputControl::click),
      route("/input/drag", &InputControl::drag),
      route("/input/scroll", &InputControl::scroll),
      route("/input/type", &InputControl::type),
      route("/input/key", &InputControl::key),
      route("/input/hotkey", &InputControl::hotkey),
      toolRoute<NoBody>(
          "POST", "/clipboard/get", Precondition::accessibility,
          [&input](const NoBody&) { return input.clipboardGet(); }, inputFailure),
      route("/clipboard/set", &InputControl::clipboardSet),
  };
}

std::vector<Route> appWindowRoutes(AppWindowControl& control) {
  const auto route = [&control](std::string_view path, auto operation) {
    return memberRoute(path, control, operation, appWindowFailure);
  };
  return {
      route("/app/launch", &AppWindowControl::launch),
      askingRoute("/app/activate", control, "could not activate application",
                  &AppWindowControl::activate),
      askingRoute("/app/quit", control, "application rejected quit request",
                  &AppWindowControl::quit),
      route("/window/list", &AppWindowControl::list),
      route("/window/focus", &AppWindowControl::focus),
      route("/window/move", &AppWindowControl::move),
      route("/window/resize", &AppWindowControl::resize),
      route("/window/minimize", &AppWindowControl::minimize),
      route("/window/fullscreen", &AppWindowControl::toggleFullScreen),
  };
}

std::vector<Route> captureRoutes(ScreenCaptureService& capture) {
  return {
      toolRoute<NoBody>(
          "POST", "/displays", Precondition::none,
          [&capture](const NoBody&) { return capture.listDisplays(); }, captureFailure),
      // The tool keeps the gate itself: a permission that came after the start does not count.
      toolRoute<CaptureRequest>(
          "POST", "/capture", Precondition::none,
          [&capture](const CaptureRequest& request) { return capture.capture(request); },
          captureFailure),
  };
}

std::vector<Route> photosRoutes(PhotosExportService& photos) {
  return {
      {"GET", "/photos/status", Precondition::none,
       [&photos](const HTTPRequest&) { return jsonResponse(200, photos.status()); }},
      {"POST", "/photos/export", Precondition::none,
       [&photos](const HTTPRequest& request) {
         const auto decoded = json::decode<ExportRequest>(request.body);
         if (!decoded) return photosFailure(ExportError::of(ExportError::Kind::invalidRequest));
         const auto response = photos.exportPhoto(*decoded);
         return response ? jsonResponse(200, *response) : photosFailure(response.error());
       }},
  };
}

}  // namespace vesko
