#include "tools/image_scale.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

#include "tools/page_memory.h"
#include "tools/parallel.h"

namespace vesko {
namespace {

// One pixel's four channels; the compiler maps them to the vector unit of any machine.
using Channels = float __attribute__((vector_size(16)));
static_assert(std::endian::native == std::endian::little, "channels are taken in memory order");
using Bytes = std::uint8_t __attribute__((vector_size(4)));

#define VESKO_INLINE [[gnu::always_inline]] inline

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

/// Zero when so many bytes are the same.
template <std::size_t bytes>
VESKO_INLINE std::uint64_t differenceOf(const void* a, const void* b) {
  std::uint64_t first[bytes / 8];
  std::uint64_t second[bytes / 8];
  std::memcpy(first, a, bytes);
  std::memcpy(second, b, bytes);
  std::uint64_t difference = 0;
  for (std::size_t i = 0; i < bytes / 8; ++i) difference |= first[i] ^ second[i];
  return difference;
}

/// Weighs source rows of `count` bytes, `stride` bytes apart, into one row of floats.
VESKO_INLINE void blendRows(const std::uint8_t* rows, std::ptrdiff_t stride, int rowCount,
                            const float* weights, float* out, std::size_t count) {
  constexpr std::size_t block = 32;
  std::size_t i = 0;
  for (; i + block <= count; i += block) {
    // On screens most rows continue the one above: nothing to weigh there.
    std::uint64_t difference = 0;
    for (int k = 1; k < rowCount; ++k)
      difference |= differenceOf<block>(rows + i, rows + k * stride + i);
    if (difference == 0) {
      for (std::size_t j = 0; j < block; ++j) out[i + j] = static_cast<float>(rows[i + j]);
      continue;
    }
    float sums[block] = {};
    for (int k = 0; k < rowCount; ++k) {
      const std::uint8_t* bytes = rows + k * stride + i;
      for (std::size_t j = 0; j < block; ++j) sums[j] += weights[k] * static_cast<float>(bytes[j]);
    }
    std::memcpy(out + i, sums, sizeof(sums));
  }
  for (; i < count; ++i) {
    float sum = 0;
    for (int k = 0; k < rowCount; ++k)
      sum += weights[k] * static_cast<float>(rows[k * stride + static_cast<std::ptrdiff_t>(i)]);
    out[i] = sum;
  }
}

VESKO_INLINE Channels blendPixels(const float* row, const Taps::Span& span, const float* weights) {
  Channels sum = {0, 0, 0, 0};
  const float* from = row + 4 * static_cast<std::size_t>(span.first);
  for (int k = 0; k < span.count; ++k, from += 4) {
    Channels pixel;
    std::memcpy(&pixel, from, sizeof(pixel));
    sum += pixel * weights[k];
  }
  return sum;
}

/// Rounds to bytes, after a limit to what a premultiplied pixel may hold: the kernel's overshoot
/// must not leave a colour above its alpha.
VESKO_INLINE std::uint32_t toPixel(Channels sum, bool opaque) {
  constexpr Channels none = {0, 0, 0, 0};
  constexpr Channels most = {255, 255, 255, 255};
  sum = __builtin_elementwise_min(__builtin_elementwise_max(sum, none), most);
  if (!opaque) {
    // The rounded alpha, or a colour could still round up past it.
    const float alpha = __builtin_floorf(sum[3] + 0.5F);
    sum = __builtin_elementwise_min(sum, Channels{alpha, alpha, alpha, alpha});
  }
  const Bytes bytes = __builtin_convertvector(sum + 0.5F, Bytes);
  std::uint32_t pixel;
  std::memcpy(&pixel, &bytes, sizeof(pixel));
  return opaque ? pixel | 0xFF000000U : pixel;
}

VESKO_INLINE void scaleRow(const std::uint8_t* rows, std::ptrdiff_t stride, int rowCount,
                           const float* rowWeights, float* blended, int* runs, std::size_t channels,
                           const Taps::Span* spans, int width, const float* weights, bool opaque,
                           std::uint32_t* out) {
  blendRows(rows, stride, rowCount, rowWeights, blended, channels);
  // For every pixel, where the run of equal ones that it belongs to begins.
  runs[0] = 0;
  const int pixels = static_cast<int>(channels / 4);
  for (int x = 1; x < pixels; ++x) {
    const float* pixel = blended + 4 * static_cast<std::ptrdiff_t>(x);
    runs[x] = differenceOf<16>(pixel, pixel - 4) == 0 ? runs[x - 1] : x;
  }
  for (int x = 0; x < width; ++x) {
    const Taps::Span& span = spans[x];
    Channels sum;
    if (runs[span.first + span.count - 1] <= span.first) {
      std::memcpy(&sum, blended + 4 * static_cast<std::ptrdiff_t>(span.first), sizeof(sum));
    } else {
      sum = blendPixels(blended, span, weights + span.weights);
    }
    out[x] = toPixel(sum, opaque);
  }
}

VESKO_INLINE void scaleRows(const Image& image, const Taps& columns, const Taps& rows, int begin,
                            int end, std::uint32_t* out) {
  const std::size_t channels = 4 * static_cast<std::size_t>(image.size.width);
  const auto width = static_cast<int>(columns.spans.size());
  std::vector<float> blended(channels);
  std::vector<int> runs(channels / 4);
  for (int y = begin; y < end; ++y, out += width) {
    const Taps::Span& span = rows.spans[static_cast<std::size_t>(y)];
    scaleRow(reinterpret_cast<const std::uint8_t*>(image.row(span.first)), 4 * image.stride,
             span.count, &rows.weights[span.weights], blended.data(), runs.data(), channels,
             columns.spans.data(), width, columns.weights.data(), image.opaque, out);
  }
}

#if defined(__x86_64__) && !defined(VESKO_PORTABLE_VECTORS)
// A third less time than with the vectors that every machine has, and the same bits: nothing is
// fused.
[[gnu::target("avx2")]] void scaleRowsWidely(const Image& image, const Taps& columns,
                                             const Taps& rows, int begin, int end,
                                             std::uint32_t* out) {
  scaleRows(image, columns, rows, begin, end, out);
}
#endif

void scaleRowsHere(const Image& image, const Taps& columns, const Taps& rows, int begin, int end,
                   std::uint32_t* out) {
#if defined(__x86_64__) && !defined(VESKO_PORTABLE_VECTORS)
  if (__builtin_cpu_supports("avx2") != 0)
    return scaleRowsWidely(image, columns, rows, begin, end, out);
#endif
  scaleRows(image, columns, rows, begin, end, out);
}

}  // namespace

std::optional<Image> scaleImage(const Image& image, PixelSize size) {
  // Below this a thread costs more than it gains.
  constexpr std::size_t pixelsPerThread = 1 << 18;
  auto result = WritableImage::make(size, image.opaque);
  if (!result.pixels) return std::nullopt;
  const Taps columns(image.size.width, size.width);
  const Taps rows(image.size.height, size.height);
  const auto sourcePixels =
      static_cast<std::size_t>(image.size.width) * static_cast<std::size_t>(image.size.height);
  const int threads = std::min(threadsFor(sourcePixels, pixelsPerThread), size.height);
  runParallel(threads, [&](int part) {
    const int begin = size.height * part / threads;
    scaleRowsHere(image, columns, rows, begin, size.height * (part + 1) / threads,
                  result.pixels + static_cast<std::ptrdiff_t>(begin) * size.width);
  });
  return std::move(result.image);
}

}  // namespace vesko
