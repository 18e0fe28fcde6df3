// Where the windows of an application lie on the X screen, for toolkits that tell positions within
// a window only, and bringing them to the front.
#pragma once

#include <sys/types.h>
#include <xcb/xcb.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/geometry.h"
#include "platform/linux/x11_connection.h"

namespace vesko {

struct AtspiWindow {
  xcb_window_t id = 0;
  std::string title;
  Rect rect;  ///< of the X window, without the window manager's frame
  /// What the toolkit itself draws outside its content, its shadows (_GTK_FRAME_EXTENTS).
  double left = 0, right = 0, top = 0, bottom = 0;
};

/// One thread. Connects to the X server at the first question.
class AtspiWindows {
 public:
  struct OfProcess {
    std::vector<AtspiWindow> windows;  ///< those that the window manager manages
    std::vector<AtspiWindow> popups;   ///< menus and popovers that show, the topmost last
  };

  OfProcess windowsOf(pid_t process);

  /// Asks the window manager and waits until it has done so; false when it has not by the deadline.
  bool activate(xcb_window_t window, std::chrono::steady_clock::time_point deadline);

 private:
  std::vector<xcb_window_t> managed();
  std::vector<xcb_window_t> shownPopups();
  std::vector<AtspiWindow> describe(const std::vector<xcb_window_t>& windows);
  xcb_get_property_cookie_t ask(xcb_window_t window, std::string_view property, xcb_atom_t type,
                                std::uint32_t words);
  XcbPtr<xcb_get_property_reply_t> answer(xcb_get_property_cookie_t cookie);
  std::optional<xcb_window_t> active();

  X11Connection x11_;
};

/// Where the content of a window begins on the screen. `size` is the size of the element that
/// stands for the window.
Point contentOrigin(const AtspiWindow& window, double width, double height);

}  // namespace vesko
