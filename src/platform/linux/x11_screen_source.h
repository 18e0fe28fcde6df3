// Displays and windows of an X server and their pixels.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>
#include <vector>

#include "base/mutex.h"
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
  using Clock = std::chrono::steady_clock;

  void takeBack(std::unique_ptr<Session> session);
  void releaseWhenIdle();

  const std::chrono::milliseconds keepFor_;
  Mutex mutex_;
  std::condition_variable_any closed_;
  std::unique_ptr<Session> idle_ VESKO_GUARDED_BY(mutex_);
  Clock::time_point releaseAt_ VESKO_GUARDED_BY(mutex_);
  bool closing_ VESKO_GUARDED_BY(mutex_) = false;
  bool releasing_ VESKO_GUARDED_BY(mutex_) = false;
  std::jthread releaser_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
