#include "control_server/tool_routes.h"

namespace vesko {
namespace {

HTTPResponse inputFailure(const InputControl::ControlError& error) {
  return errorResponse(400, error.message());
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

template <class Request, class Response>
Route inputRoute(std::string_view path, InputControl& input,
                 std::expected<Response, InputControl::ControlError> (InputControl::*operation)(
                     const Request&)) {
  return toolRoute<Request>(
      "POST", path, Precondition::accessibility,
      [&input, operation](const Request& request) { return (input.*operation)(request); },
      inputFailure);
}

HTTPResponse appWindowFailure(const AppWindowControl::ControlError& error) {
  return errorResponse(400, error.message());
}

template <class Request, class Response>
Route appWindowRoute(
    std::string_view path, AppWindowControl& control,
    AppWindowControl::Result<Response> (AppWindowControl::*operation)(const Request&)) {
  return toolRoute<Request>(
      "POST", path, Precondition::accessibility,
      [&control, operation](const Request& request) { return (control.*operation)(request); },
      appWindowFailure);
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

std::vector<Route> inputRoutes(InputControl& input) {
  return {
      inputRoute("/input/move", input, &InputControl::move),
      inputRoute("/input/click", input, &InputControl::click),
      inputRoute("/input/drag", input, &InputControl::drag),
      inputRoute("/input/scroll", input, &InputControl::scroll),
      inputRoute("/input/type", input, &InputControl::type),
      inputRoute("/input/key", input, &InputControl::key),
      inputRoute("/input/hotkey", input, &InputControl::hotkey),
      toolRoute<NoBody>(
          "POST", "/clipboard/get", Precondition::accessibility,
          [&input](const NoBody&) { return input.clipboardGet(); }, inputFailure),
      inputRoute("/clipboard/set", input, &InputControl::clipboardSet),
  };
}

std::vector<Route> appWindowRoutes(AppWindowControl& control) {
  return {
      appWindowRoute("/app/launch", control, &AppWindowControl::launch),
      askingRoute("/app/activate", control, "could not activate application",
                  &AppWindowControl::activate),
      askingRoute("/app/quit", control, "application rejected quit request",
                  &AppWindowControl::quit),
      appWindowRoute("/window/list", control, &AppWindowControl::list),
      appWindowRoute("/window/focus", control, &AppWindowControl::focus),
      appWindowRoute("/window/move", control, &AppWindowControl::move),
      appWindowRoute("/window/resize", control, &AppWindowControl::resize),
      appWindowRoute("/window/minimize", control, &AppWindowControl::minimize),
      appWindowRoute("/window/fullscreen", control, &AppWindowControl::toggleFullScreen),
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

}  // namespace vesko
