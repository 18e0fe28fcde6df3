// Where the windows of an application lie on the X screen, for toolkits that tell positions within
// a window only, and bringing them to the front.
#pragma once

#include <sys/types.h>

#include <vector>

#include "base/geometry.h"
#include "platform/linux/x11_windows.h"

namespace vesko {

/// One thread; borrows the sessions. Nothing takes longer than until the deadline: what the X
/// server has not told by then is missing.
class AtspiWindows {
 public:
  struct OfProcess {
    std::vector<X11Window> windows;  ///< those that the window manager manages, bottom to top
    std::vector<X11Window> popups;   ///< menus and popovers that show, the topmost last
  };

  AtspiWindows(X11Sessions& sessions, X11Session::Clock::time_point deadline)
      : sessions_(&sessions), deadline_(deadline) {}

  OfProcess windowsOf(pid_t process);

  /// Asks the window manager and waits until it has done so; false when it has not within a second.
  bool activate(xcb_window_t window);

 private:
  X11Sessions* sessions_;
  X11Session::Clock::time_point deadline_;
};

/// Where the content of a window begins on the screen. The size is that of the element that stands
/// for the window.
Point contentOrigin(const X11Window& window, double width, double height);

}  // namespace vesko
