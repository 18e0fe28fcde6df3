// The displays and windows of the desktop, and their pixels.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <vector>

#include "base/geometry.h"
#include "platform/image.h"

namespace vesko {

struct ScreenDisplay {
  std::uint32_t id = 0;  ///< stable while the display stays connected
  Rect bounds = {};      ///< global points
  int pixelsWide = 0;
  int pixelsHigh = 0;
  bool primary = false;
};

/// One screen as windows see it: where it lies in the space of window frames, and how many pixels
/// it gives them for a point.
struct BackingScreen {
  Rect frame = {};
  double scale = 1;
};

struct BackingScreens {
  std::vector<BackingScreen> all = {};
  std::optional<double> mainScale = {};
};

enum class ScreenSourceError {
  failed,
  declined,     ///< the user or the desktop refused
  displayGone,  ///< no such display
  windowGone,   ///< no such window, or none that is on the screen
};

/// Any thread, several at once.
class ScreenSource {
 public:
  template <class T>
  using Result = std::expected<T, ScreenSourceError>;

  virtual ~ScreenSource() = default;

  /// The active displays in the desktop's own order.
  virtual Result<std::vector<ScreenDisplay>> displays() = 0;
  virtual Result<BackingScreens> backingScreens() = 0;
  /// The frame of a window that is on the screen, in points.
  virtual Result<Rect> windowFrame(std::uint32_t window) = 0;

  /// The pixels below `area`, points from the display's top left corner and within it, with
  /// everything that is on the screen there and the pointer. `output` is the wanted size; a source
  /// that cannot scale returns another one.
  virtual Result<Image> captureDisplay(std::uint32_t display, const Rect& area,
                                       PixelSize output) = 0;
  /// That window alone, also what other windows cover of it. The size as above.
  virtual Result<Image> captureWindow(std::uint32_t window, PixelSize output) = 0;
};

}  // namespace vesko
