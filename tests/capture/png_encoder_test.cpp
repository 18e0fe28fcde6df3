// What is encoded comes back from a decoder that is not ours, pixel by pixel.
#include "tools/png_encoder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <random>
#include <string>

#include "fakes/fake_screen_source.h"
#include "png_decoder.h"

namespace vesko {
namespace {

using fakes::paintedImage;

/// Encodes, decodes and compares; the size of the file, or 0 after a failure.
std::size_t roundTrip(const Image& image) {
  const auto file = encodePng(image);
  EXPECT_TRUE(file);
  if (!file) return 0;
  const auto decoded = test::decodePng(file->bytes());
  EXPECT_TRUE(decoded) << "not a valid PNG file";
  if (!decoded) return 0;
  EXPECT_EQ(decoded->size, image.size);
  EXPECT_EQ(decoded->hasAlpha, !image.opaque);
  for (int y = 0; y < image.size.height; ++y) {
    for (int x = 0; x < image.size.width; ++x) {
      const std::uint32_t expected = image.row(y)[x] | (image.opaque ? 0xFF000000U : 0);
      if (decoded->argb(x, y) != expected) {
        ADD_FAILURE() << "pixel " << x << "," << y << " is " << std::hex << decoded->argb(x, y)
                      << " instead of " << expected;
        return 0;
      }
    }
  }
  return file->size;
}

/// Colours that survive the way through straight alpha unchanged.
std::uint32_t withAlpha(std::uint32_t color, int x) {
  return x % 3 == 0 ? 0U : color | 0xFF000000U;
}

TEST(PngEncoderTest, RoundTripsPatternsOfEveryShape) {
  std::mt19937 random(3);
  using Paint = std::function<std::uint32_t(int, int)>;
  const std::vector<std::pair<std::string, Paint>> patterns = {
      {"flat", [](int, int) { return 0xFF336699U; }},
      {"noise", [&](int, int) { return 0xFF000000U | random(); }},
      {"grey noise", [&](int, int) { return 0xFF000000U | (random() & 255) * 0x010101U; }},
      {"gradient",
       [](int x, int y) {
         return 0xFF000000U | static_cast<std::uint32_t>(x + y * 3) * 0x010203U;
       }},
      {"rows repeat",
       [](int x, int) {
         return 0xFF000000U | static_cast<std::uint32_t>(x) * static_cast<std::uint32_t>(x);
       }},
      {"columns repeat",
       [](int, int y) { return 0xFF000000U | static_cast<std::uint32_t>(y * 977); }},
      {"checks", [](int x, int y) { return (x + y) % 2 == 0 ? 0xFFFFFFFFU : 0xFF000000U; }},
      {"tiles",
       [](int x, int y) {
         return 0xFF000000U | static_cast<std::uint32_t>((x % 17) * (y % 11)) * 0x0103F7U;
       }},
      {"rare specks", [&](int, int) { return random() % 97 == 0 ? random() : 0xFFEEEEEEU; }}};
  const std::vector<PixelSize> sizes = {
      {1, 1},   {1, 2},   {2, 1},   {1, 300}, {300, 1},  {3, 5},     {85, 7},   {86, 7},   {87, 7},
      {172, 9}, {255, 3}, {257, 4}, {64, 64}, {333, 77}, {70000, 1}, {1, 9000}, {600, 411}};
  for (const auto& [name, paint] : patterns) {
    for (const PixelSize size : sizes) {
      SCOPED_TRACE(testing::Message() << name << " " << size.width << "x" << size.height);
      ASSERT_GT(roundTrip(paintedImage(size, true, paint)), 0U);
      ASSERT_GT(roundTrip(paintedImage(size, false,
                                       [&](int x, int y) { return withAlpha(paint(x, y), x); })),
                0U);
    }
  }
}

TEST(PngEncoderTest, IgnoresTheTopByteOfOpaqueImagesAndHonoursStride) {
  const Image whole = paintedImage({300, 200}, true, [](int x, int y) {
    return static_cast<std::uint32_t>(x * y * 7919) & 0x3FFFFFFFU;
  });
  Image part = whole;
  part.pixels += 3 * whole.stride + 17;
  part.size = {200, 150};
  EXPECT_GT(roundTrip(part), 0U);
}

TEST(PngEncoderTest, WritesStraightAlpha) {
  constexpr std::uint32_t half = 0x80402010U;
  const auto file = encodePng(paintedImage({5, 4}, false, [](int, int) { return half; }));
  ASSERT_TRUE(file);
  const auto decoded = test::decodePng(file->bytes());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->argb(4, 3), 0x80804020U);
}

TEST(PngEncoderTest, CompressesWhatScreensAreMadeOf) {
  // 3 MB of pixels each.
  const PixelSize size{1000, 1000};
  const auto sizeOf = [&](const auto& paint) { return roundTrip(paintedImage(size, true, paint)); };
  EXPECT_LT(sizeOf([](int, int) { return 0xFF123456U; }), 30'000U);
  EXPECT_LT(sizeOf([](int x, int) { return static_cast<std::uint32_t>(x * 7919); }), 60'000U);
  EXPECT_LT(sizeOf([](int, int y) { return static_cast<std::uint32_t>(y * 7919); }), 60'000U);
  std::mt19937 random(1);
  // What cannot be compressed hardly grows.
  EXPECT_LT(sizeOf([&](int, int) { return static_cast<std::uint32_t>(random()); }), 3'050'000U);
}

TEST(PngEncoderTest, LargeImagesAreWholeWhereverTheyAreSplit) {
  std::mt19937 random(9);
  for (const int height : {511, 512, 513, 1023, 1080}) {
    SCOPED_TRACE(height);
    // Text-like rows over a flat ground, with noise right around the middle.
    ASSERT_GT(roundTrip(paintedImage({1920, height}, true,
                                     [&](int x, int y) {
                                       if (std::abs(y - height / 2) < 3)
                                         return static_cast<std::uint32_t>(random());
                                       const bool ink = y % 16 < 9 && (x * 31 + y * 7) % 11 < 3;
                                       return ink ? 0xFF202020U : 0xFFFAFAFAU;
                                     })),
              0U);
  }
}

}  // namespace
}  // namespace vesko
