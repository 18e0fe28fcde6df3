#include "tools/input_control.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

#include "tools/key_table.h"
#include "tools/text_chunks.h"

namespace vesko {
namespace {

/// How long a paste waits for its program; one that takes nothing on this key costs it all.
constexpr std::chrono::milliseconds pasteBound{1000};

/// Events of a text, two for each of its pieces: few enough to stop soon, enough to set up the
/// keyboard rarely.
constexpr std::size_t typedAtOnce = 32;

using Kind = MouseEvent::Kind;

std::unexpected<InputControl::ControlError> invalid(std::string message) {
  return std::unexpected(InputControl::ControlError::invalid(std::move(message)));
}

bool finite(const Point& point) {
  return std::isfinite(point.x) && std::isfinite(point.y);
}

std::optional<std::int32_t> scrollDelta(double delta) {
  using Limits = std::numeric_limits<std::int32_t>;
  if (!(delta >= Limits::min() && delta <= Limits::max())) return std::nullopt;
  return static_cast<std::int32_t>(delta);
}

std::array<InputEvent, 2> keyPress(const KeyStroke& stroke) {
  return {KeyEvent{stroke.key, true, stroke.flags, {}},
          KeyEvent{stroke.key, false, stroke.flags, {}}};
}

}  // namespace

std::string InputControl::ControlError::message() const {
  switch (kind) {
    case Kind::invalid:
      return detail;
    case Kind::eventCreationFailed:
      return "could not create input event";
    case Kind::clipboardUnavailable:
      return "clipboard text is unavailable";
  }
  std::unreachable();
}

InputControl::Done InputControl::post(std::span<const InputEvent> events) {
  if (mayGoOn_) {
    if (auto may = mayGoOn_(); !may) return invalid(std::move(may.error()));
  }
  if (!events_.post(events))
    return std::unexpected(ControlError{ControlError::Kind::eventCreationFailed, {}});
  return OKResponse{};
}

InputControl::Done InputControl::move(const MoveRequest& request) {
  const Point at{request.x, request.y};
  if (!finite(at)) return invalid("coordinates must be finite");
  const MutexLock lock(mutex_);
  return post(std::array<InputEvent, 1>{MouseEvent{Kind::moved, at, 0}});
}

InputControl::Done InputControl::click(const ClickRequest& request) {
  const std::string button = request.button.value_or("left");
  const bool left = button == "left";
  if (!left && button != "right") return invalid("button must be left or right");
  const std::int64_t count = request.count.value_or(1);
  if (count != 1 && count != 2) return invalid("count must be 1 or 2");
  if (request.x.has_value() != request.y.has_value())
    return invalid("x and y must be supplied together");
  std::optional<Point> at;
  if (request.x) {
    at = Point{*request.x, *request.y};
    if (!finite(*at)) return invalid("coordinates must be finite");
  }

  const MutexLock lock(mutex_);
  if (!at) at = events_.pointerLocation();
  if (!at) return std::unexpected(ControlError{ControlError::Kind::eventCreationFailed, {}});
  std::vector<InputEvent> events;
  for (int state = 1; state <= count; ++state) {
    events.emplace_back(MouseEvent{left ? Kind::leftDown : Kind::rightDown, *at, state});
    events.emplace_back(MouseEvent{left ? Kind::leftUp : Kind::rightUp, *at, state});
  }
  return post(events);
}

InputControl::Done InputControl::drag(const DragRequest& request) {
  if (request.button.value_or("left") != "left") return invalid("drag button must be left");
  const Point from{request.fromX, request.fromY};
  const Point to{request.toX, request.toY};
  const double distance = std::hypot(to.x - from.x, to.y - from.y);
  if (!std::isfinite(distance)) return invalid("drag distance is out of range");
  const int steps = std::clamp(static_cast<int>(std::min(60.0, distance / 12)), 2, 60);

  std::vector<InputEvent> events{MouseEvent{Kind::moved, from, 0},
                                 MouseEvent{Kind::leftDown, from, 0}};
  for (int step = 1; step <= steps; ++step) {
    const double t = static_cast<double>(step) / steps;
    const Point at{std::lerp(from.x, to.x, t), std::lerp(from.y, to.y, t)};
    events.emplace_back(MouseEvent{Kind::leftDragged, at, 0});
  }
  events.emplace_back(MouseEvent{Kind::leftUp, to, 0});
  const MutexLock lock(mutex_);
  return post(events);
}

InputControl::Done InputControl::scroll(const ScrollRequest& request) {
  const auto vertical = scrollDelta(request.dy);
  const auto horizontal = scrollDelta(request.dx);
  if (!vertical || !horizontal) return invalid("scroll delta is out of range");
  const MutexLock lock(mutex_);
  return post(std::array<InputEvent, 1>{ScrollEvent{*vertical, *horizontal}});
}

InputControl::Done InputControl::type(const TypeRequest& request) {
  const std::string method = request.method.value_or("keystroke");
  if (method == "paste") {
    const auto stroke = keyNamed("v");
    const MutexLock lock(mutex_);
    if (auto set = setClipboard(request.text); !set) return set;
    const std::uint64_t reads = pasteboard_.reads();
    const Done posted = post(keyPress({stroke->key, key_flags::command}));
    // Programs fetch the text only after the key, and the clipboard may change once this returns.
    if (posted) pasteboard_.awaitReadBeyond(reads, pasteBound);
    return posted;
  }
  if (method != "keystroke") return invalid("method must be keystroke or paste");

  std::vector<InputEvent> events;
  for (const std::u16string& chunk : utf16Chunks(request.text)) {
    events.emplace_back(KeyEvent{0, true, 0, chunk});
    events.emplace_back(KeyEvent{0, false, 0, chunk});
  }
  const MutexLock lock(mutex_);
  std::span<const InputEvent> rest = events;
  for (; rest.size() > typedAtOnce; rest = rest.subspan(typedAtOnce)) {
    if (auto posted = post(rest.first(typedAtOnce)); !posted) return posted;
  }
  return post(rest);
}

InputControl::Done InputControl::press(std::string_view name,
                                       std::span<const std::string> modifiers) {
  std::uint32_t flags = 0;
  for (const std::string& modifier : modifiers) {
    const auto flag = modifierNamed(modifier);
    if (!flag) return invalid("unsupported modifier: " + modifier);
    flags |= *flag;
  }
  auto stroke = keyNamed(name);
  if (!stroke) return invalid("unsupported key: " + std::string(name));
  stroke->flags |= flags;
  const MutexLock lock(mutex_);
  return post(keyPress(*stroke));
}

InputControl::Done InputControl::key(const KeyRequest& request) {
  if (!request.modifiers) return press(request.key, {});
  return press(request.key, *request.modifiers);
}

InputControl::Done InputControl::hotkey(const HotkeyRequest& request) {
  if (request.combo.size() < 2) return invalid("hotkey must contain modifiers and a key");
  const std::span combo(request.combo);
  return press(combo.back(), combo.first(combo.size() - 1));
}

std::expected<ClipboardGetResponse, InputControl::ControlError> InputControl::clipboardGet() {
  auto text = pasteboard_.text();
  if (!text) return std::unexpected(ControlError{ControlError::Kind::clipboardUnavailable, {}});
  return ClipboardGetResponse{std::move(*text)};
}

InputControl::Done InputControl::setClipboard(std::string_view text) {
  if (!pasteboard_.setText(text)) return invalid("could not write the clipboard");
  return OKResponse{};
}

InputControl::Done InputControl::clipboardSet(const ClipboardSetRequest& request) {
  const MutexLock lock(mutex_);
  return setClipboard(request.text);
}

}  // namespace vesko
