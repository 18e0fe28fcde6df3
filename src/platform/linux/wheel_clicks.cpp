#include "platform/linux/wheel_clicks.h"

#include <algorithm>

namespace vesko {

int WheelClicks::take(std::int32_t pixels) {
  if (pixels == 0) return 0;
  const bool turned = (remainder_ < 0) != (pixels < 0);
  const std::int64_t total = pixels + (turned ? 0 : remainder_);
  const std::int64_t clicks = total / pixelsPerClick;
  if (clicks == 0) {
    remainder_ = 0;
    return pixels < 0 ? -1 : 1;
  }
  remainder_ = total % pixelsPerClick;
  return static_cast<int>(std::clamp<std::int64_t>(clicks, -maxClicks, maxClicks));
}

}  // namespace vesko
