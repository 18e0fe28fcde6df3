// Turns a stream of scroll deltas in pixels into clicks of a notched wheel.
#pragma once

#include <cstdint>

namespace vesko {

/// One axis. Not synchronised.
class WheelClicks {
 public:
  /// What toolkits scroll at one click: about three lines of text.
  static constexpr std::int64_t pixelsPerClick = 50;
  /// Further clicks of one request are dropped: no document that a person scrolls is that long,
  /// and an application must work through every one of them.
  static constexpr int maxClicks = 400;

  /// Clicks to send now, with the sign of `pixels`: at least one for any delta but 0. What is left
  /// below a whole click counts towards the next call in the same direction.
  int take(std::int32_t pixels);

 private:
  std::int64_t remainder_ = 0;
};

}  // namespace vesko
