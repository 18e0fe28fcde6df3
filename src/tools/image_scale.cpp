#include "tools/image_scale.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

#include "platform/writable_image.h"
#include "base/parallel.h"

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

/// The source is looked at in blocks of so many pixels.
constexpr int blockPixels = 8;
constexpr std::size_t blockBytes = 4 * blockPixels;

/// The source rows that one result row weighs.
struct SourceRows {
  const std::uint8_t* first = nullptr;
  std::ptrdiff_t stride = 0;  ///< bytes
  int count = 0;
  const float* weights = nullptr;
};

/// Whether the block at byte `at` is of one colour: that of the pixel before it.
VESKO_INLINE bool isFlat(const SourceRows& rows, std::size_t at) {
  const std::uint8_t* block = rows.first + at;
  std::uint64_t difference = at == 0 ? differenceOf<blockBytes - 8>(block, block + 4)
                                     : differenceOf<blockBytes>(block, block - 4);
  if (at == 0) difference |= differenceOf<8>(block, block + blockBytes - 8);
  for (int k = 1; k < rows.count; ++k)
    difference |= differenceOf<blockBytes>(block, block + k * rows.stride);
  return difference == 0;
}

/// Weighs `count` bytes of the source rows into floats.
VESKO_INLINE void blendRows(const SourceRows& rows, std::size_t at, std::size_t count, float* out) {
  float sums[blockBytes] = {};
  for (int k = 0; k < rows.count; ++k) {
    const std::uint8_t* bytes = rows.first + k * rows.stride + at;
    for (std::size_t j = 0; j < count; ++j)
      sums[j] += rows.weights[k] * static_cast<float>(bytes[j]);
  }
  std::memcpy(out + at, sums, count * sizeof(float));
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

/// Which result pixels the blocks of a row decide.
struct Columns {
  Taps taps;
  std::vector<int> startsAt;  ///< for a block: the first result that weighs nothing before it
  std::vector<int> endsBy;    ///< for a block: the first result that weighs something from it on

  Columns(int from, int to) : taps(from, to) {
    const int blocks = (from + blockPixels - 1) / blockPixels;
    int starts = 0;
    int ends = 0;
    for (int b = 0; b <= blocks; ++b) {
      const int pixel = b * blockPixels;
      while (starts < to && span(starts).first < pixel) ++starts;
      while (ends < to && span(ends).first + span(ends).count <= pixel) ++ends;
      startsAt.push_back(starts);
      endsBy.push_back(ends);
    }
  }

  const Taps::Span& span(int x) const { return taps.spans[static_cast<std::size_t>(x)]; }
};

/// Memory of one thread, made once for all its rows.
struct Scratch {
  explicit Scratch(std::size_t pixels)
      : channels(4 * pixels),
        blended(channels),
        isBlended((pixels + blockPixels - 1) / blockPixels) {}

  std::size_t channels;
  std::vector<float> blended;  ///< the weighed rows, of blended blocks only
  std::vector<char> isBlended;
};

/// Results from `begin` to `end` the long way: the rows are weighed where these need them.
VESKO_INLINE void weighPixels(const SourceRows& rows, Scratch& scratch, const Columns& columns,
                              int begin, int end, bool opaque, std::uint32_t* out) {
  for (int x = begin; x < end; ++x) {
    const Taps::Span& span = columns.span(x);
    const auto last = static_cast<std::size_t>((span.first + span.count - 1) / blockPixels);
    for (auto b = static_cast<std::size_t>(span.first / blockPixels); b <= last; ++b) {
      if (scratch.isBlended[b]) continue;
      scratch.isBlended[b] = 1;
      const std::size_t at = b * blockBytes;
      if (at + blockBytes <= scratch.channels)
        blendRows(rows, at, blockBytes, scratch.blended.data());
      else
        blendRows(rows, at, scratch.channels - at, scratch.blended.data());
    }
    out[x] = toPixel(blendPixels(scratch.blended.data(), span, &columns.taps.weights[span.weights]),
                     opaque);
  }
}

/// On screens most of a row is of one colour with its surroundings. A run of flat blocks is of one
/// colour throughout, and so is every result that weighs nothing else.
VESKO_INLINE void scaleRow(const SourceRows& rows, Scratch& scratch, const Columns& columns,
                           bool opaque, std::uint32_t* out) {
  std::ranges::fill(scratch.isBlended, 0);
  const std::size_t whole = scratch.channels / blockBytes;
  int done = 0;
  for (std::size_t b = 0; b < whole;) {
    if (!isFlat(rows, b * blockBytes)) {
      ++b;
      continue;
    }
    std::size_t end = b + 1;
    while (end < whole && isFlat(rows, end * blockBytes)) ++end;
    const int from = columns.startsAt[b];
    const int to = columns.endsBy[end];
    if (from < to) {
      weighPixels(rows, scratch, columns, done, from, opaque, out);
      Bytes bytes;
      std::memcpy(&bytes, rows.first + b * blockBytes, sizeof(bytes));
      std::fill(out + from, out + to, toPixel(__builtin_convertvector(bytes, Channels), opaque));
      done = to;
    }
    b = end;
  }
  weighPixels(rows, scratch, columns, done, static_cast<int>(columns.taps.spans.size()), opaque,
              out);
}

VESKO_INLINE void scaleRows(const Image& image, const Columns& columns, const Taps& rows, int begin,
                            int end, std::uint32_t* out) {
  Scratch scratch(static_cast<std::size_t>(image.size.width));
  for (int y = begin; y < end; ++y, out += columns.taps.spans.size()) {
    const Taps::Span& span = rows.spans[static_cast<std::size_t>(y)];
    const SourceRows source{reinterpret_cast<const std::uint8_t*>(image.row(span.first)),
                            4 * static_cast<std::ptrdiff_t>(image.stride), span.count,
                            &rows.weights[span.weights]};
    scaleRow(source, scratch, columns, image.opaque, out);
  }
}

#if defined(__x86_64__) && !defined(VESKO_PORTABLE_VECTORS)
// A third less time than with the vectors that every machine has, and the same bits: nothing is
// fused.
[[gnu::target("avx2")]] void scaleRowsWidely(const Image& image, const Columns& columns,
                                             const Taps& rows, int begin, int end,
                                             std::uint32_t* out) {
  scaleRows(image, columns, rows, begin, end, out);
}
#endif

void scaleRowsHere(const Image& image, const Columns& columns, const Taps& rows, int begin, int end,
                   std::uint32_t* out) {
#if defined(__x86_64__) && !defined(VESKO_PORTABLE_VECTORS)
  if (__builtin_cpu_supports("avx2") != 0)
    return scaleRowsWidely(image, columns, rows, begin, end, out);
#endif
  scaleRows(image, columns, rows, begin, end, out);
}

}  // namespace

struct ImageScaler::Plan {
  Image image;
  int width;
  Columns columns;
  Taps rows;

  Plan(Image from, PixelSize size)
      : image(std::move(from)),
        width(size.width),
        columns(image.size.width, size.width),
        rows(image.size.height, size.height) {}
};

ImageScaler::ImageScaler(Image image, PixelSize size)
    : plan_(std::make_unique<const Plan>(std::move(image), size)) {}

ImageScaler::~ImageScaler() = default;

void ImageScaler::rows(int first, int count, std::uint32_t* out) const {
  // Below this a thread costs more than it gains.
  constexpr std::size_t pixelsPerThread = 1 << 18;
  const Image& image = plan_->image;
  const double sourcePixels = static_cast<double>(image.size.width) * image.size.height * count /
                              static_cast<double>(plan_->rows.spans.size());
  const int threads =
      std::min(threadsFor(static_cast<std::size_t>(sourcePixels), pixelsPerThread), count);
  runParallel(threads, [&](int part) {
    const int begin = count * part / threads;
    scaleRowsHere(image, plan_->columns, plan_->rows, first + begin,
                  first + count * (part + 1) / threads,
                  out + static_cast<std::ptrdiff_t>(begin) * plan_->width);
  });
}

std::optional<Image> scaleImage(const Image& image, PixelSize size) {
  auto result = WritableImage::make(size, image.opaque);
  if (!result.pixels) return std::nullopt;
  ImageScaler(image, size).rows(0, size.height, result.pixels);
  return std::move(result.image);
}

}  // namespace vesko
