#include "tools/image_scale.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "tools/page_memory.h"
#include "tools/parallel.h"

namespace vesko {
namespace {

// One pixel's four channels; the compiler maps it to the vector unit of any machine.
using Channels = float __attribute__((vector_size(16)));

/// Catmull-Rom (Keys, 1981, a = -1/2): interpolates, and its slight overshoot keeps text crisp.
double kernel(double x) {
  x = std::abs(x);
  if (x < 1) return (1.5 * x - 2.5) * x * x + 1;
  if (x < 2) return ((-0.5 * x + 2.5) * x - 4) * x + 2;
  return 0;
}

/// For every result position the source positions that it weighs.
struct Taps {
  struct Span {
    int first = 0;
    int count = 0;
    std::size_t weights = 0;
  };
  std::vector<Span> spans;
  std::vector<float> weights;

  Taps(int from, int to) {
    const double ratio = static_cast<double>(from) / to;
    const double stretch = std::max(ratio, 1.0);
    spans.reserve(static_cast<std::size_t>(to));
    for (int i = 0; i < to; ++i) {
      const double center = (i + 0.5) * ratio;
      const int first = std::max(0, static_cast<int>(std::floor(center - 2 * stretch)));
      const int last = std::min(from, static_cast<int>(std::ceil(center + 2 * stretch)));
      const std::size_t start = weights.size();
      double sum = 0;
      for (int k = first; k < last; ++k) {
        const double weight = kernel((k + 0.5 - center) / stretch);
        weights.push_back(static_cast<float>(weight));
        sum += weight;
      }
      for (std::size_t w = start; w < weights.size(); ++w)
        weights[w] = static_cast<float>(weights[w] / sum);
      spans.push_back({first, last - first, start});
    }
  }
};

/// Weighs source rows into one row of `count` float channels.
void blendRows(const Image& image, const Taps::Span& span, const float* weights, float* out,
               std::size_t count) {
  constexpr std::size_t block = 32;
  for (std::size_t i = 0; i < count; i += block) {
    const std::size_t length = std::min(block, count - i);
    float sums[block] = {};
    for (int k = 0; k < span.count; ++k) {
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(image.row(span.first + k)) + i;
      const float weight = weights[k];
      if (length == block) {
        for (std::size_t j = 0; j < block; ++j) sums[j] += weight * static_cast<float>(bytes[j]);
      } else {
        for (std::size_t j = 0; j < length; ++j) sums[j] += weight * static_cast<float>(bytes[j]);
      }
    }
    std::memcpy(out + i, sums, length * sizeof(float));
  }
}

Channels blendPixels(const float* row, const Taps::Span& span, const float* weights) {
  Channels sum = {0, 0, 0, 0};
  const float* from = row + 4 * static_cast<std::size_t>(span.first);
  for (int k = 0; k < span.count; ++k, from += 4) {
    Channels pixel;
    std::memcpy(&pixel, from, sizeof(pixel));
    sum += pixel * weights[k];
  }
  return sum;
}

std::uint32_t toByte(float value, float limit) {
  return static_cast<std::uint32_t>(std::clamp(value, 0.0F, limit) + 0.5F);
}

}  // namespace

std::optional<Image> scaleImage(const Image& image, PixelSize size) {
  auto result = WritableImage::make(size, image.opaque);
  if (!result.pixels) return std::nullopt;
  const Taps columns(image.size.width, size.width);
  const Taps rows(image.size.height, size.height);
  const std::size_t channels = 4 * static_cast<std::size_t>(image.size.width);

  const auto scaleRows = [&](int begin, int end) {
    std::vector<float> blended(channels);
    for (int y = begin; y < end; ++y) {
      const Taps::Span& rowSpan = rows.spans[static_cast<std::size_t>(y)];
      blendRows(image, rowSpan, &rows.weights[rowSpan.weights], blended.data(), channels);
      std::uint32_t* out = result.pixels + static_cast<std::ptrdiff_t>(y) * size.width;
      for (const Taps::Span& span : columns.spans) {
        const Channels sum = blendPixels(blended.data(), span, &columns.weights[span.weights]);
        // The kernel's overshoot must not leave a premultiplied colour above its alpha.
        const std::uint32_t alpha = image.opaque ? 255 : toByte(sum[3], 255);
        const auto limit = static_cast<float>(alpha);
        *out++ = alpha << 24 | toByte(sum[2], limit) << 16 | toByte(sum[1], limit) << 8 |
                 toByte(sum[0], limit);
      }
    }
  };
  const int threads =
      std::min(size.height, threadsFor(channels * static_cast<std::size_t>(size.height), 1 << 20));
  runParallel(threads, [&](int part) {
    scaleRows(size.height * part / threads, size.height * (part + 1) / threads);
  });
  return std::move(result.image);
}

}  // namespace vesko
