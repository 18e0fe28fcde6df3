#include "platform/linux/atspi_windows.h"

#include <algorithm>

#include "platform/linux/x11_window_action.h"

namespace vesko {
namespace {

constexpr std::chrono::milliseconds activationTime{1000};

}  // namespace

AtspiWindows::OfProcess AtspiWindows::windowsOf(pid_t process) {
  const auto x11 = sessions_->borrow(deadline_);
  if (!x11) return {};
  const auto own = [&](const std::vector<xcb_window_t>& windows) {
    auto read = readWindows(*x11, windows);
    std::erase_if(read, [process](const X11Window& each) { return each.pid != process; });
    return read;
  };
  return {own(stackedWindows(*x11)), own(popupWindows(*x11))};
}

bool AtspiWindows::activate(xcb_window_t window) {
  const auto x11 = sessions_->borrow(deadline_);
  return x11 && X11WindowAction(*x11, window).focus(activationTime) == AXError::success;
}

Point contentOrigin(const X11Window& window, double width, double height) {
  Point origin{window.client.x, window.client.y};
  if (window.shadowLeft > 0 || window.shadowRight > 0 || window.shadowTop > 0 ||
      window.shadowBottom > 0) {
    origin.x += window.shadowLeft;
    origin.y += window.shadowTop;
  } else {
    // A border that the toolkit draws where it has no shadows.
    origin.x += std::max((window.client.w - width) / 2, 0.0);
    origin.y += std::max((window.client.h - height) / 2, 0.0);
  }
  return origin;
}

}  // namespace vesko
