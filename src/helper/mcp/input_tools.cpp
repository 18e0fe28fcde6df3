// The tools for the pointer, the keyboard and the clipboard.
#include <fmt/format.h>

#include <algorithm>

#include "base/utf8.h"
#include "helper/key_combination.h"
#include "helper/mcp/capture_map.h"
#include "helper/mcp/element_place.h"
#include "helper/mcp/json_rpc.h"
#include "helper/mcp/outcome.h"

namespace vesko::mcp {
namespace {

using json::Value;
using namespace std::chrono_literals;

/// Characters typed with one call, so that progress and cancellation come between.
constexpr std::size_t typedAtOnce = 200;
/// What the companion cuts values at, less one character.
constexpr std::size_t longestValue = (64 << 10) - 4;

using Place = std::expected<std::optional<Point>, ToolResult>;

std::unexpected<ToolResult> refuse(std::string text) {
  return std::unexpected(ToolResult::failure(std::move(text)));
}

/// Whether the window is still where it was captured.
std::expected<void, ToolResult> stillThere(const ToolCall& call, const CaptureMap& map) {
  if (!map.window) return {};
  const auto windows = readWindows(call);
  if (!windows) return std::unexpected(failed(windows.error()));
  const auto window = std::ranges::find(*windows, *map.window, &WindowState::id);
  if (window == windows->end() || window->minimized)
    return refuse("The captured window is not on the screen any more. See list_windows.");
  if (window->frame.x != map.origin.x || window->frame.y != map.origin.y)
    return refuse("The window has moved since it was captured. Capture it again.");
  return {};
}

/// The screen point that two arguments name, by the image of `map` when there is one.
Place pointOf(const ToolCall& call, std::string_view xKey, std::string_view yKey) {
  const auto x = call.number(xKey);
  const auto y = call.number(yKey);
  if (!x && !y) return std::nullopt;
  if (!x || !y) return refuse(fmt::format("Give both {} and {}, or none.", xKey, yKey));
  const std::string* text = call.text("map");
  if (!text) return Point{*x, *y};
  const auto map = CaptureMap::parse(*text);
  if (!map) return refuse("map: expected the text that capture_screen gave with the image.");
  if (auto there = stillThere(call, *map); !there) return std::unexpected(std::move(there.error()));
  auto point = map->screenPoint({*x, *y});
  if (!point) return refuse(std::move(point.error()));
  return *point;
}

/// The point that `element`, or `x` and `y`, name.
Place target(const ToolCall& call) {
  if (!call.text("element")) return pointOf(call, "x", "y");
  if (call.number("x") || call.number("y")) return refuse("Give either element or x and y.");
  auto path = call.elementPath();
  if (!path) return std::unexpected(std::move(path.error()));
  auto point = reachablePoint(call, *path);
  if (!point) return std::unexpected(std::move(point.error()));
  return *point;
}

LinkError cancelledCall() {
  return {.kind = LinkError::Kind::cancelled, .message = "cancelled"};
}

/// A piece of the text's front that ends where a person may pause.
std::string_view nextPiece(std::string_view text) {
  std::string_view piece = utf8Prefix(text, typedAtOnce);
  if (piece.size() == text.size()) return piece;
  const auto space = piece.find_last_of(" \n");
  // Elsewhere a combining sign could lose its letter.
  return space == std::string_view::npos ? piece : piece.substr(0, space + 1);
}

std::expected<void, LinkError> typePieces(const ToolCall& call, const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    if (call.context.cancelled()) return std::unexpected(cancelledCall());
    const std::string_view piece = nextPiece(rest);
    if (auto typed = call.perform("/input/type", {{"text", piece}, {"method", "keystroke"}});
        !typed) {
      if (rest.size() < text.size())
        typed.error().message =
            fmt::format("{} of {} bytes were typed. ", text.size() - rest.size(), text.size()) +
            typed.error().message;
      return typed;
    }
    rest.remove_prefix(piece.size());
    if (!rest.empty())
      call.context.progress(static_cast<double>(text.size() - rest.size()),
                            static_cast<double>(text.size()), "typing");
  }
  return {};
}

}  // namespace

ToolResult click(const ToolCall& call) {
  const auto point = target(call);
  if (!point) return point.error();
  json::Object body;
  if (*point) body = {{"x", (*point)->x}, {"y", (*point)->y}};
  if (const std::string* button = call.text("button")) body.emplace_back("button", *button);
  body.emplace_back("count", call.integer("count", 1));
  return actAndCompare(call, {}, [&] { return call.perform("/input/click", body); });
}

ToolResult movePointer(const ToolCall& call) {
  const auto point = target(call);
  if (!point) return point.error();
  if (!*point) return ToolResult::failure("Give x and y, or element.");
  // Most of what lies below the pointer does not react to it.
  return actAndCompare(
      call, {},
      [&] { return call.perform("/input/move", {{"x", (*point)->x}, {"y", (*point)->y}}); },
      outcomeResult(Outcome::notVerifiable, "the pointer was moved; nothing shows a reaction"));
}

ToolResult drag(const ToolCall& call) {
  const auto from = pointOf(call, "from_x", "from_y");
  if (!from) return from.error();
  const auto to = pointOf(call, "to_x", "to_y");
  if (!to) return to.error();
  return actAndCompare(call, {.frames = true}, [&] {
    return call.perform(
        "/input/drag",
        {{"from_x", (*from)->x}, {"from_y", (*from)->y}, {"to_x", (*to)->x}, {"to_y", (*to)->y}});
  });
}

ToolResult scroll(const ToolCall& call) {
  const auto point = target(call);
  if (!point) return point.error();
  return actAndCompare(call, {.frames = true}, [&]() -> std::expected<void, LinkError> {
    if (*point) {
      auto moved = call.perform("/input/move", {{"x", (*point)->x}, {"y", (*point)->y}});
      if (!moved) return moved;
    }
    return call.perform("/input/scroll", {{"dx", call.number("dx").value_or(0)},
                                          {"dy", call.number("dy").value_or(0)}});
  });
}

ToolResult pressKey(const ToolCall& call) {
  const auto words = parseKeyCombination(*call.text("keys"));
  if (!words) return ToolResult::failure("keys: expected a key, or a combination such as ctrl+s.");
  const std::int64_t count = call.integer("count", 1);
  return actAndCompare(call, {}, [&]() -> std::expected<void, LinkError> {
    for (std::int64_t i = 0; i < count; ++i) {
      if (call.context.cancelled()) return std::unexpected(cancelledCall());
      auto pressed = words->size() == 1
                         ? call.perform("/input/key", {{"key", words->front()}})
                         : call.perform("/input/hotkey",
                                        {{"combo", json::Array(words->begin(), words->end())}});
      if (!pressed) return pressed;
    }
    return {};
  });
}

ToolResult typeText(const ToolCall& call) {
  const std::string& text = *call.text("text");
  const std::string* method = call.text("method");
  const bool paste = method && *method == "paste";
  if (call.text("element")) {
    auto path = call.elementPath();
    if (!path) return std::move(path.error());
    auto focused = call.perform("/ax/action", {{"element_path", *path}, {"action", "focus"}});
    if (!focused) {
      focused.error().message =
          "Nothing was typed, because the element did not take the focus; click it first. " +
          focused.error().message;
      return failed(focused.error());
    }
  }
  const Scene before = readScene(call, {});
  auto typed = paste ? call.perform("/input/type", {{"text", text}, {"method", "paste"}})
                     : typePieces(call, text);
  if (!typed) return failed(typed.error());

  Scene after;
  const Scene::Element* focused = nullptr;
  const auto contains = [&] {
    after = readScene(call, {});
    focused = after.focusedElement();
    const Scene::Element* old = before.focusedElement();
    // A text that was there before proves nothing.
    return focused && focused->value.contains(text) && !(old && old->value == focused->value);
  };
  if (becomes(call, effectBound, contains))
    return outcomeResult(Outcome::confirmed, focused->name + " now holds the text");
  const auto said = changes(before, after, false);
  if (!said.empty())
    return outcomeResult(Outcome::notVerifiable,
                         "it was typed and something changed, but the text itself cannot be read "
                         "back (" +
                             said.front() + "); look with capture_screen");
  if (!focused || !after.problem.empty() || focused->value.size() >= longestValue)
    return outcomeResult(
        Outcome::notVerifiable,
        "it was typed, but " +
            (focused                 ? std::string("the text there is too long to compare")
             : after.problem.empty() ? std::string("no element says that it has the focus")
                                     : after.problem) +
            "; look with capture_screen");
  return outcomeResult(Outcome::unchanged,
                       "it was typed, but " + focused->name +
                           ", which has the focus, holds what it held before; click where the text "
                           "should go");
}

ToolResult setClipboard(const ToolCall& call) {
  const std::string& text = *call.text("text");
  if (auto done = call.perform("/clipboard/set", {{"text", text}}); !done)
    return failed(done.error());
  const auto now = call.post("/clipboard/get", {});
  const std::string* held = now ? textMember(*now, "text") : nullptr;
  if (held && *held == text)
    return outcomeResult(Outcome::confirmed,
                         fmt::format("the clipboard holds the text ({} bytes)", text.size()));
  return outcomeResult(Outcome::notVerifiable,
                       held  ? "the clipboard holds another text; a program may have replaced it"
                       : now ? "the clipboard does not say what it holds"
                             : now.error().message);
}

}  // namespace vesko::mcp
