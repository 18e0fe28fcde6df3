#include "helper/mcp/element_place.h"

#include <fmt/format.h>

#include <algorithm>

#include "helper/mcp/displays.h"
#include "helper/mcp/json_rpc.h"
#include "helper/mcp/outcome.h"

namespace vesko::mcp {
namespace {

using json::Value;
using namespace std::chrono_literals;

std::unexpected<ToolResult> refuse(std::string text) {
  return std::unexpected(ToolResult::failure(std::move(text)));
}

std::expected<Value, LinkError> readTree(const ToolCall& call, const std::string& path, int nodes) {
  auto answer =
      call.post("/ax/snapshot",
                {{"element_path", path}, {"max_nodes", nodes}, {"include_offscreen", true}}, 5s);
  if (!answer) return std::unexpected(std::move(answer.error()));
  const Value* tree = objectMember(*answer, "tree");
  return tree ? *tree : Value();
}

/// The same path with the window as it is titled now, when its application has no other.
std::optional<std::string> retitled(const ToolCall& call, const std::string& path) {
  const std::string window = windowPath(path);
  const std::string application = window.substr(0, window.rfind('/'));
  if (!window.contains("[title=") || application == window) return std::nullopt;
  const auto tree = readTree(call, application, 16);
  const Value* children = tree ? tree->find("children") : nullptr;
  const json::Array* windows = children ? children->asArray() : nullptr;
  const std::string* now =
      windows && windows->size() == 1 ? textMember(windows->front(), "path") : nullptr;
  return now ? std::optional(*now + path.substr(window.size())) : std::nullopt;
}

bool contains(const Rect& area, Point point) {
  return point.x >= area.x && point.y >= area.y && point.x < area.x + area.w &&
         point.y < area.y + area.h;
}

std::expected<Point, ToolResult> middleOf(const ToolCall& call, const std::string& path) {
  // Not under its window's new title: in a window that took its place something else would be hit.
  const auto element = readTree(call, path, 1);
  if (!element) return std::unexpected(failed(element.error()));
  const Value* frame = objectMember(*element, "frame");
  Rect rect;
  if (!frame || !json::decodeInto(*frame, rect) || rect.w <= 0 || rect.h <= 0)
    return refuse(
        "The element does not say where it is on the screen: it may be hidden or scrolled away. "
        "Use element_action, or capture_screen and x, y with its map.");
  return Point{rect.x + rect.w / 2, rect.y + rect.h / 2};
}

struct Stacking {
  std::optional<WindowState> own;   ///< the element's, where the list shows it
  std::optional<WindowState> over;  ///< what lies over the place instead
};

/// What the window list, front to back, says of the place. Menus and popovers are in no list, so
/// that they may reach beyond their window: only a place within it can be behind another one.
std::expected<Stacking, LinkError> stackingAt(const ToolCall& call, Point place,
                                              const std::string& title) {
  const auto windows = readWindows(call);
  if (!windows) return std::unexpected(windows.error());
  Stacking stacking;
  std::optional<WindowState> top;
  for (const WindowState& window : *windows) {
    if (!contains(window.frame, place)) continue;
    if (!window.minimized && !top) top = window;
    if (window.title == title && !stacking.own) stacking.own = window;
  }
  if (stacking.own && top && top->id != stacking.own->id) stacking.over = std::move(top);
  return stacking;
}

}  // namespace

std::string windowPath(const std::string& path) {
  // Titles are percent-encoded, so a slash always separates.
  std::size_t segments = path.starts_with("AXSystemWide") ? 3 : 2;
  std::size_t end = 0;
  while (segments-- > 0 && end != std::string::npos) end = path.find('/', end + (end > 0 ? 1 : 0));
  return path.substr(0, end);
}

std::expected<Value, LinkError> readElement(const ToolCall& call, const std::string& path) {
  auto element = readTree(call, path, 1);
  if (element || element.error().kind != LinkError::Kind::elementGone) return element;
  const auto now = retitled(call, path);
  return now ? readTree(call, *now, 1) : element;
}

std::expected<Point, ToolResult> reachablePoint(const ToolCall& call, const std::string& path) {
  auto place = middleOf(call, path);
  if (!place) return place;
  const auto window = readTree(call, windowPath(path), 1);
  const std::string* title = window ? textMember(*window, "title") : nullptr;
  auto stacking = stackingAt(call, *place, title ? *title : "");
  if (!stacking) return std::unexpected(failed(stacking.error()));
  if (stacking->own && (stacking->over || stacking->own->minimized)) {
    if (auto raised = call.perform("/window/focus", {{"window_id", stacking->own->id}}); !raised)
      return std::unexpected(failed(raised.error()));
    // A window that comes back may come back elsewhere.
    place = middleOf(call, path);
    if (!place) return place;
    stacking = stackingAt(call, *place, title ? *title : "");
    if (!stacking) return std::unexpected(failed(stacking.error()));
    if (stacking->over)
      return refuse(fmt::format(
          "Another window lies over the element: {}. Deal with that first, or use element_action.",
          stacking->over->describe()));
  }
  const auto displays = readDisplays(call);
  if (!displays) return std::unexpected(failed(displays.error()));
  const auto shows = [&](const Display& display) { return contains(display.area, *place); };
  if (!std::ranges::any_of(*displays, shows))
    return refuse(fmt::format(
        "The element's middle, {:.10g},{:.10g}, lies on no display: scroll it into view, or use "
        "element_action.",
        place->x, place->y));
  return place;
}

}  // namespace vesko::mcp
