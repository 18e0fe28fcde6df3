// What the X server and the window manager say of the windows that people see. One thread each
// call, through a session.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/geometry.h"
#include "platform/linux/x11_session.h"

namespace vesko {

struct X11Window {
  xcb_window_t id = XCB_WINDOW_NONE;
  pid_t pid = 0;  ///< 0 when the server cannot tell
  std::optional<std::string> title = {};
  Rect frame = {};   ///< with the manager's decorations, without shadows
  Rect client = {};  ///< the window that the application made
  double left = 0, top = 0, right = 0, bottom = 0;  ///< what the frame adds to the client's sides
  /// What the client itself draws outside of the frame.
  double shadowLeft = 0, shadowTop = 0, shadowRight = 0, shadowBottom = 0;
  int border = 0;                             ///< around the client, only without a manager
  std::string instance = {}, className = {};  ///< WM_CLASS
  std::string gtkApplicationId = {};
  xcb_window_t transientFor = XCB_WINDOW_NONE;
  bool ordinary = true;  ///< no dock, desktop, menu or the like
  bool hidden = false;   ///< minimised
  bool fullScreen = false;
  bool maximizedHorizontally = false;
  bool maximizedVertically = false;
  bool modal = false;
  bool canDelete = false;  ///< takes part in WM_DELETE_WINDOW
  bool viewable = false;
};

/// More windows than a person opens; what lies beyond is left out.
inline constexpr std::size_t maxWindows = 2000;

/// A window manager answers.
bool hasWindowManager(X11Session& x11);

/// The managed windows in the order in which they were opened, or without a manager the viewable
/// ones on the root window.
std::vector<xcb_window_t> clientWindows(X11Session& x11);
/// The same, bottom to top.
std::vector<xcb_window_t> stackedWindows(X11Session& x11);
/// Menus, popovers and the like that show, which no manager looks after; bottom to top.
std::vector<xcb_window_t> popupWindows(X11Session& x11);

/// In order, without those that are gone.
std::vector<X11Window> readWindows(X11Session& x11, std::span<const xcb_window_t> windows);
std::optional<X11Window> readWindow(X11Session& x11, xcb_window_t window);

/// The window that has the keyboard, as the manager says; without one, as the server says.
xcb_window_t activeWindow(X11Session& x11);

/// Where the monitors lie (RandR 1.5), or the root window where there are none to tell; empty when
/// the server does not answer.
std::vector<Rect> screenFrames(X11Session& x11);

std::vector<std::uint32_t> readCardinals(X11Session& x11, xcb_window_t window, XAtom property);
/// Nothing when the window has no such property.
std::optional<std::vector<std::uint32_t>> cardinalsIfAny(X11Session& x11, xcb_window_t window,
                                                         XAtom property);

}  // namespace vesko
