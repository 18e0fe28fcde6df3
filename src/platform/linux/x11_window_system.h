// The windows of an X11 desktop: listed by what their manager says, acted on through it, and each
// action confirmed. Any thread; no lock is held while waiting.
//
// Reference: Extended Window Manager Hints 1.5; WM_NORMAL_HINTS in the Inter-Client Communication
// Conventions Manual 2.0. Without a window manager, windows are moved, sized and focused directly.
#pragma once

#include <chrono>

#include "platform/applications.h"
#include "platform/linux/x11_session.h"

namespace vesko {

class X11WindowSystem : public WindowSystem {
 public:
  /// How long an action may take to show its effect.
  static constexpr std::chrono::milliseconds patience{3000};

  explicit X11WindowSystem(X11Sessions& sessions) : sessions_(sessions) {}

  std::expected<std::vector<DesktopWindow>, AXError> windows(std::optional<pid_t> pid) override;
  std::expected<std::vector<Rect>, AXError> screens() override;
  AXError focus(std::uint32_t window) override;
  AXError move(std::uint32_t window, Point to) override;
  AXError resize(std::uint32_t window, double width, double height) override;
  AXError minimize(std::uint32_t window) override;
  AXError toggleFullScreen(std::uint32_t window) override;

 private:
  X11Sessions& sessions_;
};

}  // namespace vesko
