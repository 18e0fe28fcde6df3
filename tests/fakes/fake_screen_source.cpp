#include "fakes/fake_screen_source.h"

#include <algorithm>
#include <cmath>

namespace vesko::fakes {

ScreenSource::Result<std::vector<ScreenDisplay>> FakeScreenSource::displays() {
  if (listError) return std::unexpected(*listError);
  return screenDisplays;
}

ScreenSource::Result<Rect> FakeScreenSource::windowFrame(std::uint32_t window) {
  const auto found = windows.find(window);
  if (found == windows.end()) return std::unexpected(ScreenSourceError::windowGone);
  return found->second.frame;
}

ScreenSource::Result<Image> FakeScreenSource::captureDisplay(std::uint32_t display,
                                                             const Rect& area, PixelSize output) {
  ++captures;
  {
    const MutexLock lock(mutex_);
    lastArea_ = area;
  }
  if (whileCapturing) whileCapturing();
  if (captureError) return std::unexpected(*captureError);
  const auto found = std::ranges::find(screenDisplays, display, &ScreenDisplay::id);
  if (found == screenDisplays.end()) return std::unexpected(ScreenSourceError::displayGone);
  const double scale = found->bounds.w > 0 ? found->pixelsWide / found->bounds.w : 1;
  const int left = static_cast<int>(std::lround((found->bounds.x + area.x) * scale));
  const int top = static_cast<int>(std::lround((found->bounds.y + area.y) * scale));
  return paintedImage(output, true,
                      [left, top](int x, int y) { return placeColor(left + x, top + y); });
}

ScreenSource::Result<Image> FakeScreenSource::captureWindow(std::uint32_t window,
                                                            PixelSize output) {
  ++captures;
  if (whileCapturing) whileCapturing();
  if (captureError) return std::unexpected(*captureError);
  const auto found = windows.find(window);
  if (found == windows.end()) return std::unexpected(ScreenSourceError::windowGone);
  return paintedImage(found->second.delivers.value_or(output), found->second.opaque, placeColor);
}

}  // namespace vesko::fakes
