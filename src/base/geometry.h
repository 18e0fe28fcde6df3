// Points and rectangles in screen points, origin at the top left of the main display.
#pragma once

#include <tuple>

#include "base/json_record.h"

namespace vesko {

struct Point {
  double x = 0;
  double y = 0;
  bool operator==(const Point&) const = default;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("x", &Point::x), json::field("y", &Point::y)};
  }
};

struct Rect {
  double x = 0;
  double y = 0;
  double w = 0;
  double h = 0;
  bool operator==(const Rect&) const = default;

  static constexpr auto jsonFields() {
    return std::tuple{json::field("x", &Rect::x), json::field("y", &Rect::y),
                      json::field("w", &Rect::w), json::field("h", &Rect::h)};
  }
};

}  // namespace vesko
