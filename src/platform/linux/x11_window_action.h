// One action on one window: what is asked of the window manager, and waiting until it shows.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "platform/accessibility.h"
#include "platform/linux/x11_windows.h"

namespace vesko {

/// One thread; the session is for this action alone.
class X11WindowAction {
 public:
  using Clock = X11Session::Clock;
  using Condition = std::function<bool(const X11Window&)>;

  /// Watches the window from now on, so that no change is missed.
  X11WindowAction(X11Session& x11, xcb_window_t window);

  bool managed() const { return managed_; }
  /// Nothing once the window is gone or the server does not answer; error() says which.
  std::optional<X11Window> read();
  AXError error() const { return x11_.broken() ? AXError::failure : AXError::invalidElement; }

  /// False when the manager says that this window cannot do it.
  bool allows(XAtom action);
  /// A message about the window to its manager.
  void ask(XAtom message, const std::array<std::uint32_t, 5>& data);
  /// Adds states or takes them away; `second` may be the same as `first`.
  void askState(bool add, XAtom first, XAtom second);

  /// Raises the window, restores it when it is minimised and gives it, or a dialog of it that has
  /// to be answered first, the keyboard; returns as await() does.
  AXError focus(std::chrono::milliseconds bound);

  /// Success once the condition holds and the window has come to rest; failure when it does not
  /// hold within the time.
  AXError await(const Condition& holds, std::chrono::milliseconds bound);

 private:
  X11Session& x11_;
  const xcb_window_t window_;
  bool managed_;
};

}  // namespace vesko
