// Waits until an application has worked through the events sent to its window so far.
//
// Reference: Extended Window Manager Hints, _NET_WM_PING. The answer is an event to the root
// window, which only arrives once the application took everything before the ping from its queue.
#pragma once

#include <xcb/xcb.h>

#include <chrono>
#include <cstdint>
#include <optional>

#include "platform/linux/x11_connection.h"

namespace vesko {

enum class PingResult {
  answered,
  /// The window is gone: nobody waits for anything there.
  gone,
  /// The application does not take part in the protocol.
  unsupported,
  timedOut,
};

/// The window with the input focus or the nearest one above it that answers pings; the focused
/// window itself when there is none, nothing when no window has the focus.
std::optional<xcb_window_t> focusedClient(X11Connection& x11);

/// Consumes the connection's events while it waits; selects none afterwards.
PingResult ping(X11Connection& x11, xcb_window_t window, std::chrono::milliseconds bound);

}  // namespace vesko
