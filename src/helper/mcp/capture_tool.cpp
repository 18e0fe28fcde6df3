// The tool that captures the screen: an image small enough to send, and where it lies.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "helper/mcp/capture_map.h"
#include "helper/mcp/displays.h"
#include "helper/mcp/json_rpc.h"
#include "helper/mcp/outcome.h"

namespace vesko::mcp {
namespace {

using json::Value;

/// Some assistants reduce what is larger, and then see other pixels than the map is for.
constexpr std::int64_t defaultDimension = 1568;
constexpr int maxAttempts = 8;

struct Capture {
  std::string base64;
  std::int64_t width = 0;
  std::int64_t height = 0;
  double scale = 1;
  bool reduced = false;  ///< further than asked, to be small enough

  static constexpr auto jsonFields() {
    return std::tuple{
        json::field("png_base64", &Capture::base64), json::field("width", &Capture::width),
        json::field("height", &Capture::height), json::field("scale", &Capture::scale)};
  }
};

/// The top left corner of a display in screen points; nothing when it cannot be known.
std::optional<Point> displayOrigin(const ToolCall& call, const std::string* id) {
  const auto displays = readDisplays(call);
  if (!displays) return std::nullopt;
  const auto found = std::ranges::find_if(
      *displays, [id](const Display& each) { return id ? each.id == *id : each.primary; });
  return found == displays->end() ? std::nullopt
                                  : std::optional(Point{found->area.x, found->area.y});
}

std::optional<Point> windowOrigin(const ToolCall& call, std::int64_t id) {
  const auto windows = readWindows(call);
  if (!windows) return std::nullopt;
  const auto window = std::ranges::find(*windows, id, &WindowState::id);
  return window == windows->end() ? std::nullopt
                                  : std::optional(Point{window->frame.x, window->frame.y});
}

/// Captures again and smaller until the image fits.
std::expected<Capture, ToolResult> captureToFit(const ToolCall& call, json::Object request,
                                                std::int64_t dimension) {
  request.emplace_back("max_dim", dimension);
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    request.back().second = dimension;
    auto answer = call.post("/capture", request);
    if (!answer) return std::unexpected(failed(answer.error()));
    Capture capture;
    if (!json::decodeInto(*answer, capture) || capture.width < 1 || capture.height < 1 ||
        !(capture.scale > 0))
      return std::unexpected(ToolResult::failure("The companion's answer holds no image."));
    capture.reduced = attempt > 0;
    if (capture.base64.size() <= maxImageBytes) return capture;
    // An image's bytes grow with its area, about.
    const double fits =
        std::sqrt(static_cast<double>(maxImageBytes) / static_cast<double>(capture.base64.size()));
    const auto longest = static_cast<double>(std::max(capture.width, capture.height));
    dimension = std::max<std::int64_t>(1, static_cast<std::int64_t>(longest * fits * 0.93));
  }
  return std::unexpected(ToolResult::failure(
      "The image does not get small enough to send; capture a region or a window."));
}

}  // namespace

ToolResult captureScreen(const ToolCall& call) {
  const Value* region = call.arguments.find("region");
  const std::string* display = call.text("display_id");
  const bool window = call.arguments.find("window_id");
  if (window && (region || display))
    return ToolResult::failure("window_id goes without display_id and region.");

  const std::int64_t asked = call.integer("max_dim", defaultDimension);
  json::Object request{{"target", window ? "window" : region ? "region" : "display"}};
  std::optional<Point> origin;
  if (window) {
    const std::int64_t id = call.integer("window_id", 0);
    request.emplace_back("window_id", id);
    origin = windowOrigin(call, id);
  } else {
    if (display) request.emplace_back("display_id", *display);
    origin = displayOrigin(call, display);
  }
  if (region) {
    request.emplace_back("rect", *region);
    Rect rect;
    if (origin && json::decodeInto(*region, rect)) {
      origin->x += rect.x;
      origin->y += rect.y;
    }
  }
  auto capture = captureToFit(call, std::move(request), asked);
  if (!capture) return std::move(capture.error());

  std::string text = fmt::format("{}x{} pixels", capture->width, capture->height);
  json::Object about{
      {"width", capture->width}, {"height", capture->height}, {"scale", capture->scale}};
  if (origin) {
    CaptureMap map{.origin = *origin,
                   .scale = capture->scale,
                   .width = capture->width,
                   .height = capture->height};
    if (window) map.window = call.integer("window_id", 0);
    text += fmt::format(
        ". Screen point of the pixel px,py: {:.10g} + px / {:.6g}, {:.10g} + py / "
        "{:.6g}. To click what you see, give the pixel as x, y and map=\"{}\".",
        origin->x, capture->scale, origin->y, capture->scale, map.text());
    about.emplace_back("origin", json::Object{{"x", origin->x}, {"y", origin->y}});
    about.emplace_back("map", map.text());
  } else {
    text += ". Where this lies on the screen is not known, so its pixels cannot be clicked.";
  }
  if (capture->reduced)
    text +=
        " It was reduced to keep the answer below a megabyte; capture a region for more detail.";
  ToolResult result{.text = std::move(text),
                    .image = ToolResult::Image{std::move(capture->base64), "image/png"}};
  result.structured = std::move(about);
  return result;
}

}  // namespace vesko::mcp
