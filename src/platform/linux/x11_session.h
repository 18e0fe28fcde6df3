// Dealings with the X server that end by a deadline, also when the server hangs or goes away.
//
// Atoms: Extended Window Manager Hints 1.5 and Inter-Client Communication Conventions Manual 2.0;
// those that begin with _GTK are what GTK documents for window managers.
#pragma once

#include <xcb/xcb.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <utility>

#include "base/mutex.h"
#include "platform/linux/x11_connection.h"

namespace vesko {

enum class XAtom : std::size_t {
  gtkApplicationId,
  gtkFrameExtents,
  netActiveWindow,
  netClientList,
  netClientListStacking,
  netFrameExtents,
  netMoveResizeWindow,
  netSupported,
  netSupportingWmCheck,
  netWmActionFullScreen,
  netWmActionMinimize,
  netWmActionMove,
  netWmActionResize,
  netWmAllowedActions,
  netWmName,
  netWmPid,
  netWmState,
  netWmStateFullScreen,
  netWmStateHidden,
  netWmStateMaximizedHorizontally,
  netWmStateMaximizedVertically,
  netWmStateModal,
  netWmWindowType,
  netWmWindowTypeCombo,
  netWmWindowTypeDesktop,
  netWmWindowTypeDnd,
  netWmWindowTypeDock,
  netWmWindowTypeDropdownMenu,
  netWmWindowTypeMenu,
  netWmWindowTypeNotification,
  netWmWindowTypePopupMenu,
  netWmWindowTypeTooltip,
  utf8String,
  wmChangeState,
  wmDeleteWindow,
  wmProtocols,
  wmState,
  count
};

/// One thread. Once an answer did not come in time the session is broken and answers nothing more.
class X11Session {
 public:
  using Clock = std::chrono::steady_clock;

  /// Owns the connection.
  X11Session(xcb_connection_t* connection, int screenNumber);
  X11Session(const X11Session&) = delete;
  X11Session& operator=(const X11Session&) = delete;
  ~X11Session();

  void setDeadline(Clock::time_point deadline) { deadline_ = deadline; }
  Clock::time_point deadline() const { return deadline_; }
  xcb_connection_t* connection() const { return connection_; }
  xcb_window_t root() const { return screen_->root; }
  xcb_atom_t atom(XAtom name) const { return atoms_[static_cast<std::size_t>(name)]; }

  /// The answer to a request, or null: the server refused it, as for a window that is gone, or the
  /// session is broken().
  template <class Reply, class Cookie>
  XcbPtr<Reply> wait(Cookie cookie) {
    return XcbPtr<Reply>(static_cast<Reply*>(waitFor(cookie.sequence)));
  }
  bool broken() const;

  /// The next event before `until` and the deadline; null otherwise.
  XcbPtr<xcb_generic_event_t> event(Clock::time_point until);
  /// Events were selected: the connection is not to be used for anything else.
  void keepToItself() { reusable_ = false; }
  bool reusable() const { return reusable_ && !broken(); }

  bool internAtoms();

 private:
  void* waitFor(unsigned sequence);

  xcb_connection_t* connection_;
  xcb_screen_t* screen_ = nullptr;
  Clock::time_point deadline_;
  bool late_ = false;
  bool reusable_ = true;
  std::array<xcb_atom_t, static_cast<std::size_t>(XAtom::count)> atoms_{};
};

/// Connections to $DISPLAY, made when needed; one is kept. Any thread.
class X11Sessions {
 public:
  class Lease;

  /// Null when the server does not answer by the deadline.
  Lease borrow(X11Session::Clock::time_point deadline);

 private:
  friend class Lease;
  Mutex mutex_;
  std::unique_ptr<X11Session> idle_ VESKO_GUARDED_BY(mutex_);
};

class X11Sessions::Lease {
 public:
  Lease(X11Sessions& owner, std::unique_ptr<X11Session> session)
      : owner_(&owner), session_(std::move(session)) {}
  Lease(Lease&&) = default;
  ~Lease();

  explicit operator bool() const { return session_ != nullptr; }
  X11Session& operator*() const { return *session_; }
  X11Session* operator->() const { return session_.get(); }

 private:
  X11Sessions* owner_;
  std::unique_ptr<X11Session> session_;
};

}  // namespace vesko
