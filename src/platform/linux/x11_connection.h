// One connection to the X server, opened on first use and again after it broke.
#pragma once

#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vesko {

/// Owns a reply, error or event of xcb, which are allocated with malloc.
struct FreeDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using XcbPtr = std::unique_ptr<T, FreeDeleter>;

/// The next event within the time, null otherwise or when the connection broke. Sends first what
/// waits to be sent.
XcbPtr<xcb_generic_event_t> nextEvent(xcb_connection_t* connection,
                                      std::chrono::steady_clock::time_point deadline);

/// A new connection to $DISPLAY, the caller's; null when there is none by the deadline. Any thread.
xcb_connection_t* openDisplay(int& screenNumber, std::chrono::steady_clock::time_point deadline);

/// Not synchronised: each service has a connection of its own and guards it with its own lock.
class X11Connection {
 public:
  X11Connection() = default;
  X11Connection(const X11Connection&) = delete;
  X11Connection& operator=(const X11Connection&) = delete;
  ~X11Connection();

  /// The connection to $DISPLAY, or null while there is no server that answers within seconds.
  /// Handles from before a reconnection (windows, segments, atoms) are void: `generation` tells.
  xcb_connection_t* get();
  unsigned generation() const { return generation_; }

  /// The same connection as the last get() returned, broken or not: for the rest of a request that
  /// must not find itself on another one half way.
  xcb_connection_t* current() const { return connection_; }

  /// Valid after get() returned a connection.
  xcb_screen_t* screen() const { return screen_; }
  xcb_window_t root() const { return screen_->root; }

  /// Interned once a connection; XCB_ATOM_NONE when the server did not answer.
  xcb_atom_t atom(std::string_view name);

 private:
  void close();

  xcb_connection_t* connection_ = nullptr;
  xcb_screen_t* screen_ = nullptr;
  unsigned generation_ = 0;
  std::unordered_map<std::string, xcb_atom_t> atoms_;
};

}  // namespace vesko
