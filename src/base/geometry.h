// Points and rectangles in screen points, origin at the top left of the main display.
#pragma once

namespace vesko {

struct Point {
  double x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;
};

struct Rect {
  double x = 0;
  double y = 0;
  double w = 0;
  double h = 0;
  bool operator==(const Rect&) const = default;
};

}  // namespace vesko
