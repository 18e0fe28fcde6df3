// Displays and windows of an X server and their pixels.
#pragma once

#include <memory>
#include <vector>

#include "base/mutex.h"
#include "platform/screen_source.h"

namespace vesko {

/// Points are pixels here: X has no other unit. Display ids are the atoms of the RandR monitors'
/// names (RandR 1.5), or the root window's id on a server without monitors. Window ids are X
/// window ids, of any window but the root.
///
/// Each capture under way has a connection of its own, so none waits for another's; one is kept
/// for the next.
class X11ScreenSource : public ScreenSource {
 public:
  X11ScreenSource();
  ~X11ScreenSource() override;

  Result<std::vector<ScreenDisplay>> displays() override;
  Result<BackingScreens> backingScreens() override;
  Result<Rect> windowFrame(std::uint32_t window) override;
  Result<Image> captureDisplay(std::uint32_t display, const Rect& area, PixelSize output) override;
  Result<Image> captureWindow(std::uint32_t window, PixelSize output) override;

 private:
  class Session;
  class Borrowed;

  Mutex mutex_;
  std::unique_ptr<Session> idle_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
