#include "helper/mcp/capture_map.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

namespace vesko::mcp {

std::string CaptureMap::text() const {
  std::string text =
      fmt::format("{:.10g},{:.10g},{:.10g},{},{}", origin.x, origin.y, scale, width, height);
  if (window) text += fmt::format(",{}", *window);
  return text;
}

std::optional<CaptureMap> CaptureMap::parse(std::string_view text) {
  std::vector<double> numbers;
  for (const char *at = text.data(), *const end = at + text.size(); at != end;) {
    double number = 0;
    const auto read = std::from_chars(at, end, number);
    if (read.ec != std::errc() || !std::isfinite(number)) return std::nullopt;
    numbers.push_back(number);
    at = read.ptr;
    if (at == end) break;
    if (*at++ != ',' || at == end) return std::nullopt;
  }
  constexpr double largest = 1e9;
  if (numbers.size() < 5 || numbers.size() > 6 ||
      std::ranges::any_of(numbers, [](double n) { return std::abs(n) > 1e10; }))
    return std::nullopt;
  CaptureMap map{.origin = {numbers[0], numbers[1]}, .scale = numbers[2]};
  if (map.scale < 1e-6 || numbers[3] < 1 || numbers[3] > largest || numbers[4] < 1 ||
      numbers[4] > largest)
    return std::nullopt;
  map.width = static_cast<std::int64_t>(numbers[3]);
  map.height = static_cast<std::int64_t>(numbers[4]);
  if (numbers.size() == 6) map.window = static_cast<std::int64_t>(numbers[5]);
  return map;
}

std::expected<Point, std::string> CaptureMap::screenPoint(Point pixel) const {
  if (!(pixel.x >= 0 && pixel.y >= 0 && pixel.x < static_cast<double>(width) &&
        pixel.y < static_cast<double>(height)))
    return std::unexpected(
        fmt::format("The pixel {},{} is outside of the image, which is {} by {} pixels.", pixel.x,
                    pixel.y, width, height));
  // A reduced image's pixel covers several points: its middle is the safest of them.
  return Point{origin.x + (std::floor(pixel.x) + 0.5) / scale,
               origin.y + (std::floor(pixel.y) + 0.5) / scale};
}

}  // namespace vesko::mcp
