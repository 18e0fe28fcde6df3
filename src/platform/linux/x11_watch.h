// Ends waiting for an X server that has fallen silent: the library's own calls wait without a
// bound.
#pragma once

#include <xcb/xcb.h>

#include <chrono>
#include <cstdint>

namespace vesko {

/// While one lives the server has to send something on the connection within each such stretch of
/// time, as it does when it answers; otherwise the connection breaks, and with it every call that
/// waits on it. Not for waiting for events that may never come. Any thread; the connection outlives
/// it.
class X11Watch {
 public:
  explicit X11Watch(xcb_connection_t* connection,
                    std::chrono::milliseconds patience = std::chrono::seconds(10));
  X11Watch(const X11Watch&) = delete;
  X11Watch& operator=(const X11Watch&) = delete;
  ~X11Watch();

 private:
  friend class X11Watcher;
  using Clock = std::chrono::steady_clock;

  xcb_connection_t* const connection_;
  const std::chrono::milliseconds patience_;
  // Of the watcher:
  std::uint64_t heard_ = 0;  ///< bytes
  Clock::time_point due_;
};

}  // namespace vesko
