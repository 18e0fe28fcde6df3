// Presses keys and types text on the X server's keyboard.
#pragma once

#include <xcb/xcb.h>

#include <span>
#include <string_view>

#include "platform/input_events.h"
#include "platform/linux/x11_borrowed_keys.h"
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_keymap.h"

namespace vesko {

/// Characters of the active layout are typed with their own keys and modifiers, the others through
/// keys that the layout leaves unused. Modifiers that are held or locked on the user's keyboard are
/// out of the way meanwhile and back afterwards, unless the user let go of them. Command is Control
/// here: shortcuts do on this desktop what they do with Command on a Mac. Not synchronised. Borrows
/// the connection.
class X11Keyboard {
 public:
  explicit X11Keyboard(X11Connection& x11) : x11_(x11), borrowed_(x11) {}

  /// Keyboard events in a row; other kinds are ignored. The connection is open and has XTEST.
  bool post(std::span<const InputEvent> events);

 private:
  class NeutralModifiers;

  bool press(const KeyEvent& event, const X11Keymap& keymap);
  bool type(std::u32string_view text, const X11Keymap& keymap);
  bool typeStretch(std::u32string_view text, const X11Keymap& keymap);
  void lockLayout(std::uint8_t layout);
  void fake(std::uint8_t event, xcb_keycode_t keycode);

  X11Connection& x11_;
  X11BorrowedKeys borrowed_;
};

}  // namespace vesko
