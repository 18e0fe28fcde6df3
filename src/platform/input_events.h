// Synthetic pointer, wheel and keyboard events for the user's session.
//
// The vocabulary is that of Quartz events: points in global coordinates, virtual key codes of the
// ANSI keyboard (the kVK_ constants), event flags, and text as UTF-16. A back end translates it to
// what its desktop has and decides nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include "base/geometry.h"

namespace vesko {

using VirtualKey = std::uint16_t;

/// Event flags (CGEventFlags).
namespace key_flags {
inline constexpr std::uint32_t shift = 0x20000;
inline constexpr std::uint32_t control = 0x40000;
inline constexpr std::uint32_t option = 0x80000;
inline constexpr std::uint32_t command = 0x100000;
}  // namespace key_flags

struct MouseEvent {
  enum class Kind { moved, leftDown, leftUp, leftDragged, rightDown, rightUp };
  Kind kind = Kind::moved;
  Point at;
  /// 1 for a single click, 2 for the second press and release of a double click; 0 elsewhere.
  int clickState = 0;
  bool operator==(const MouseEvent&) const = default;
};

/// Pixels. A positive vertical delta scrolls towards the top, a positive horizontal one to the
/// left.
struct ScrollEvent {
  std::int32_t vertical = 0;
  std::int32_t horizontal = 0;
  bool operator==(const ScrollEvent&) const = default;
};

struct KeyEvent {
  VirtualKey key = 0;
  bool down = false;
  /// Exactly these modifiers apply, whatever is held or locked on the user's keyboard.
  std::uint32_t flags = 0;
  /// When not empty, the key types this text and `key` and `flags` mean nothing. Never a part of a
  /// surrogate pair. The down event types; its up event carries the same text.
  std::u16string text;
  bool operator==(const KeyEvent&) const = default;
};

using InputEvent = std::variant<MouseEvent, ScrollEvent, KeyEvent>;

/// Any thread. Each call is one uninterrupted sequence: calls from several threads queue up.
class InputEvents {
 public:
  virtual ~InputEvents() = default;

  /// Nothing when no event can be created, as without a display.
  virtual std::optional<Point> pointerLocation() = 0;

  /// Posts the events in order without pauses of its own choosing and returns when the desktop has
  /// taken the last. False when one could not be created; those before it stay posted.
  [[nodiscard]] virtual bool post(std::span<const InputEvent> events) = 0;
};

}  // namespace vesko
