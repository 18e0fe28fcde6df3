// Where an image lies on the screen, so that what is seen in it can be clicked.
//
// The map is a short text that holds everything needed, so no capture has to be remembered:
// "X,Y,SCALE,WIDTH,HEIGHT" or "X,Y,SCALE,WIDTH,HEIGHT,WINDOW": the image's top left corner in
// screen points, image pixels for a point, the image's size, and the window that it shows.
// Any thread.
#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "base/geometry.h"

namespace vesko::mcp {

struct CaptureMap {
  Point origin = {};
  double scale = 1;
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::optional<std::int64_t> window = {};

  std::string text() const;
  static std::optional<CaptureMap> parse(std::string_view text);

  /// The screen point that a pixel of the image shows, by its middle. The error names the image's
  /// size.
  std::expected<Point, std::string> screenPoint(Point pixel) const;
};

}  // namespace vesko::mcp
