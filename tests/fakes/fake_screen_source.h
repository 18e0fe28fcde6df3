// A desktop in memory: displays and windows whose pixels a test chooses, and faults on demand. Any
// thread once it is set up.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <vector>

#include "base/mutex.h"
#include "platform/screen_source.h"

namespace vesko::fakes {

/// An image filled by a function of the position.
template <class Function>
Image paintedImage(PixelSize size, bool opaque, const Function& colorAt) {
  auto pixels = std::make_shared<std::vector<std::uint32_t>>();
  pixels->reserve(static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height));
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width; ++x)
      pixels->push_back(static_cast<std::uint32_t>(colorAt(x, y)));
  }
  const std::uint32_t* first = pixels->data();
  return {.size = size,
          .stride = size.width,
          .opaque = opaque,
          .pixels = first,
          .storage = std::move(pixels)};
}

/// Every place of the desktop has a colour of its own, so a wrong offset shows.
inline std::uint32_t placeColor(int x, int y) {
  return 0xFF000000U | static_cast<std::uint32_t>(x & 0xFFF) << 12 |
         static_cast<std::uint32_t>(y & 0xFFF);
}

class FakeScreenSource : public ScreenSource {
 public:
  struct Window {
    Rect frame;
    bool opaque = true;
    /// What a capture delivers instead of the size that it was asked for.
    std::optional<PixelSize> delivers = {};
  };

  std::vector<ScreenDisplay> screenDisplays;
  BackingScreens screens;
  std::map<std::uint32_t, Window> windows;

  /// Faults: what listing and capturing answer from now on.
  std::optional<ScreenSourceError> listError;
  std::optional<ScreenSourceError> captureError;
  /// Called in the middle of every capture.
  std::function<void()> whileCapturing;

  /// What the last capture of a display asked for.
  Rect lastArea() {
    const MutexLock lock(mutex_);
    return lastArea_;
  }
  std::atomic<int> captures = 0;

  Result<std::vector<ScreenDisplay>> displays() override;
  Result<BackingScreens> backingScreens() override { return screens; }
  Result<Rect> windowFrame(std::uint32_t window) override;
  Result<Image> captureDisplay(std::uint32_t display, const Rect& area, PixelSize output) override;
  Result<Image> captureWindow(std::uint32_t window, PixelSize output) override;

 private:
  Mutex mutex_;
  Rect lastArea_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko::fakes
