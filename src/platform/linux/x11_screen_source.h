// Displays and windows of an X server and their pixels.
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "base/kept_for_next.h"
#include "platform/screen_source.h"

namespace vesko {

/// Points are pixels here: X has no other unit. Display ids are the atoms of the RandR monitors'
/// names (RandR 1.5), or the root window's id on a server without monitors. Window ids are X
/// window ids, of any window but the root.
///
/// Each capture under way has a connection of its own, so none waits for another's. One is kept
/// for the next capture, with the memory that it shares with the server, until there was none for
/// a while; a thread that lives no longer than that sees to it.
class X11ScreenSource : public ScreenSource {
 public:
  explicit X11ScreenSource(std::chrono::milliseconds keepFor = std::chrono::seconds(20));
  ~X11ScreenSource() override;

  Result<std::vector<ScreenDisplay>> displays() override;
  Result<BackingScreens> backingScreens() override;
  Result<Rect> windowFrame(std::uint32_t window) override;
  Result<Image> captureDisplay(std::uint32_t display, const Rect& area, PixelSize output) override;
  Result<Image> captureWindow(std::uint32_t window, PixelSize output) override;

 private:
  class Session;
  class Borrowed;

  KeptForNext<Session> sessions_;
};

}  // namespace vesko
