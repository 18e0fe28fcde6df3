#include "platform/linux/wheel_clicks.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace vesko {
namespace {

TEST(WheelClicksTest, TurnsPixelsIntoClicks) {
  constexpr int unit = WheelClicks::pixelsPerClick;
  struct Case {
    const char* what;
    std::vector<std::int32_t> pixels;
    std::vector<int> clicks;
  };
  const Case cases[] = {
      {"nothing", {0}, {0}},
      {"a small delta still scrolls", {1, -1, 1}, {1, -1, 1}},
      {"whole clicks", {unit, -3 * unit}, {1, -3}},
      {"the rest counts towards the next", {unit + unit / 2, unit + unit / 2}, {1, 2}},
      {"turning round drops the rest", {2 * unit - 1, -unit}, {1, -1}},
      {"a rest alone is no click", {2 * unit - 1, 0}, {1, 0}},
      {"absurd deltas are bounded",
       {std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::min()},
       {WheelClicks::maxClicks, -WheelClicks::maxClicks}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WheelClicks axis;
    for (std::size_t i = 0; i < c.pixels.size(); ++i)
      EXPECT_EQ(axis.take(c.pixels[i]), c.clicks[i]);
  }
}

}  // namespace
}  // namespace vesko
