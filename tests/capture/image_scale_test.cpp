// Properties that every good reduction has.
#include "tools/image_scale.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "fakes/fake_screen_source.h"

namespace vesko {

// image_scale_portable.cpp
std::optional<Image> scaleImagePortably(const Image& image, PixelSize size);

namespace {

using fakes::paintedImage;

std::uint32_t channelOf(std::uint32_t pixel, int shift) {
  return pixel >> shift & 255;
}

double meanOf(const Image& image, int shift) {
  double sum = 0;
  for (int y = 0; y < image.size.height; ++y) {
    for (int x = 0; x < image.size.width; ++x) sum += channelOf(image.row(y)[x], shift);
  }
  return sum / image.size.width / image.size.height;
}

TEST(ImageScaleTest, FlatStaysExactlyFlat) {
  for (const std::uint32_t color : {0xFF000000U, 0xFFFFFFFFU, 0xFF01FE80U, 0x80402010U, 0U}) {
    const bool opaque = color >> 24 == 255;
    for (const auto& [from, to] : {std::pair<PixelSize, PixelSize>{{192, 108}, {160, 90}},
                                   {{97, 31}, {13, 7}},
                                   {{3000, 2}, {3, 1}},
                                   {{2, 3000}, {1, 3}},
                                   {{500, 300}, {1, 1}},
                                   {{1, 1}, {5, 3}},
                                   {{16384, 40}, {1, 1}},
                                   {{700, 700}, {699, 699}}}) {
      SCOPED_TRACE(testing::Message() << std::hex << color << std::dec << " " << from.width << "x"
                                      << from.height << " to " << to.width << "x" << to.height);
      const auto scaled =
          scaleImage(paintedImage(from, opaque, [color](int, int) { return color; }), to);
      ASSERT_TRUE(scaled);
      ASSERT_EQ(scaled->size, to);
      for (int y = 0; y < to.height; ++y) {
        for (int x = 0; x < to.width; ++x) ASSERT_EQ(scaled->row(y)[x], color);
      }
    }
  }
}

TEST(ImageScaleTest, KeepsTheMean) {
  std::mt19937 random(5);
  // Mid tones, so that the kernel's overshoot is not cut off.
  const Image noise = paintedImage({640, 360}, true, [&](int x, int y) {
    const std::uint32_t wave = static_cast<std::uint32_t>(20 * std::sin(x / 9.0) + 20);
    return 0xFF000000U | (80 + random() % 60) << 16 | (100 + wave) << 8 |
           (60 + static_cast<std::uint32_t>(y) / 4);
  });
  for (const PixelSize to : {PixelSize{533, 300}, PixelSize{320, 180}, PixelSize{64, 36},
                             PixelSize{7, 4}, PixelSize{1, 1}}) {
    SCOPED_TRACE(to.width);
    const auto scaled = scaleImage(noise, to);
    ASSERT_TRUE(scaled);
    for (const int shift : {16, 8, 0})
      EXPECT_NEAR(meanOf(*scaled, shift), meanOf(noise, shift), to.width > 10 ? 0.6 : 2.0);
  }
}

// A pattern finer than the result can show must come out as its mean, not as moiré.
TEST(ImageScaleTest, DoesNotAlias) {
  const Image checks = paintedImage(
      {600, 600}, true, [](int x, int y) { return (x + y) % 2 == 0 ? 0xFFFFFFFFU : 0xFF000000U; });
  const auto scaled = scaleImage(checks, {170, 170});
  ASSERT_TRUE(scaled);
  for (int y = 2; y < 168; ++y) {
    for (int x = 2; x < 168; ++x) ASSERT_NEAR(channelOf(scaled->row(y)[x], 8), 127.5, 12);
  }
}

TEST(ImageScaleTest, ColorsNeverExceedAlpha) {
  const Image edges = paintedImage({301, 203}, false, [](int x, int y) {
    return (x / 5 + y / 7) % 2 == 0 ? 0U : (x / 50 % 2 == 0 ? 0xFFFF00FFU : 0x40400040U);
  });
  const auto scaled = scaleImage(edges, {251, 169});
  ASSERT_TRUE(scaled);
  EXPECT_FALSE(scaled->opaque);
  for (int y = 0; y < 169; ++y) {
    for (int x = 0; x < 251; ++x) {
      const std::uint32_t pixel = scaled->row(y)[x];
      for (const int shift : {16, 8, 0}) ASSERT_LE(channelOf(pixel, shift), pixel >> 24);
    }
  }
}

TEST(ImageScaleTest, EveryMachineComputesTheSame) {
  std::mt19937 random(11);
  for (const bool opaque : {true, false}) {
    const Image noise = paintedImage({517, 301}, opaque, [&](int, int) {
      const auto alpha = static_cast<std::uint32_t>(random() & 255);
      const auto color = static_cast<std::uint32_t>(random() % (alpha + 1));
      return alpha << 24 | color << 16 | color / 2 << 8 | color;
    });
    for (const PixelSize to : {PixelSize{431, 251}, PixelSize{100, 58}, PixelSize{3, 2}}) {
      const auto here = scaleImage(noise, to);
      const auto portable = scaleImagePortably(noise, to);
      ASSERT_TRUE(here && portable);
      for (int y = 0; y < to.height; ++y) {
        for (int x = 0; x < to.width; ++x) ASSERT_EQ(here->row(y)[x], portable->row(y)[x]);
      }
    }
  }
}

TEST(ImageScaleTest, HonoursStrideAndKeepsPlaces) {
  Image whole = paintedImage({400, 100}, true, [](int x, int) {
    return x < 100 ? 0xFFFF0000U : (x < 200 ? 0xFF00FF00U : 0xFF0000FFU);
  });
  Image part = whole;
  part.pixels += 100;
  part.size.width = 100;
  const auto scaled = scaleImage(part, {30, 30});
  ASSERT_TRUE(scaled);
  for (int x = 0; x < 30; ++x) ASSERT_EQ(scaled->row(29)[x], 0xFF00FF00U);

  const auto halves = scaleImage(whole, {100, 25});
  ASSERT_TRUE(halves);
  EXPECT_EQ(halves->row(12)[10], 0xFFFF0000U);
  EXPECT_EQ(halves->row(12)[37], 0xFF00FF00U);
  EXPECT_EQ(halves->row(12)[90], 0xFF0000FFU);
}

}  // namespace
}  // namespace vesko
