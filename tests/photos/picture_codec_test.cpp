// Decoding files that other programs wrote, and refusing those that nobody should have written.
#include <gtest/gtest.h>
#include <lcms2.h>

#include <array>
#include <cmath>

#include "photos/pictures.h"
#include "platform/linux/pictures/linux_picture_codec.h"

namespace vesko {
namespace {

using namespace test;

constexpr PixelSize size{96, 64};

int channel(std::uint32_t pixel, int shift) {
  return static_cast<int>(pixel >> shift & 255);
}

void expectPixel(const Image& image, int x, int y, std::uint32_t expected, int tolerance) {
  const std::uint32_t pixel = image.row(y)[x] | (image.opaque ? 0xFF000000U : 0);
  for (const int shift : {24, 16, 8, 0})
    ASSERT_NEAR(channel(pixel, shift), channel(expected, shift), tolerance)
        << "at " << x << "," << y << " of the channel at " << shift;
}

void expectQuarters(const Image& image, PixelSize expected, int tolerance) {
  ASSERT_EQ(image.size, expected);
  for (int i = 0; i < 4; ++i) {
    expectPixel(image, expected.width * (i % 2 * 2 + 1) / 4, expected.height * (i / 2 * 2 + 1) / 4,
                quarters[i], tolerance);
  }
}

std::expected<Image, PictureError> decode(const std::string& file) {
  return LinuxPictureCodec().decode(bytesOf(file));
}

TEST(PictureCodecTest, DecodesWhatOthersWrite) {
  const std::string first = pngFile(quarteredPicture(size));
  const std::string second = pngFile(noisyPicture(size));
  const struct {
    const char* options;
    const char* output;
    int tolerance;
    bool several = false;
  } cases[] = {
      {"-quality 95 -interlace JPEG", "a.jpg", 4},
      {"-quality 95 -colorspace CMYK", "a.jpg", 6},
      {"", "PNG24:a.png", 0},
      {"-interlace PNG", "PNG24:a.png", 0},
      {"-depth 16", "PNG48:a.png", 0},
      {"", "PNG8:a.png", 0},
      {"", "a.gif", 0},
      {"-interlace GIF", "a.gif", 0},
      {"-delay 10", "a.gif", 0, true},
      {"-define webp:lossless=true", "a.webp", 0},
      {"-quality 95", "a.webp", 4},
      {"-define webp:lossless=true -delay 10", "a.webp", 0, true},
      {"-compress LZW", "a.tiff", 0},
      {"-compress Zip -depth 16", "a.tiff", 1},
      {"-define tiff:tile-geometry=32x32", "a.tiff", 0},
      {"-colorspace CMYK -compress None", "a.tiff", 4},
      {"-compress JPEG -quality 95", "a.tiff", 4},
      {"-compress LZW", "a.tiff", 0, true},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(std::string(item.options) + " " + item.output);
    const auto image =
        decode(converted(item.options, item.output, first, item.several ? second : ""));
    ASSERT_TRUE(image);
    expectQuarters(*image, size, item.tolerance);
  }
}

TEST(PictureCodecTest, DecodesGrey) {
  const Image ramp = painted(size, true, [](int x, int) {
    return 0xFF000000U | static_cast<std::uint32_t>(x * 2) * 0x010101U;
  });
  for (const char* output : {"a.jpg", "PNG:a.png", "a.tiff", "a.heic"}) {
    SCOPED_TRACE(output);
    const auto image = decode(converted("-colorspace Gray -quality 98", output, pngFile(ramp)));
    ASSERT_TRUE(image);
    for (const int x : {10, 50, 90})
      expectPixel(*image, x, 30, 0xFF000000U | static_cast<std::uint32_t>(x * 2) * 0x010101U, 5);
  }
}

/// Where the stored pixel is seen, from what Exif says of the stored row 0 and column 0.
std::pair<int, int> seenAt(int orientation, int x, int y, PixelSize stored) {
  const int right = stored.width - 1 - x;
  const int bottom = stored.height - 1 - y;
  switch (orientation) {
    case 2:
      return {right, y};  // top, right
    case 3:
      return {right, bottom};  // bottom, right
    case 4:
      return {x, bottom};  // bottom, left
    case 5:
      return {y, x};  // left, top
    case 6:
      return {bottom, x};  // right, top
    case 7:
      return {bottom, right};  // right, bottom
    case 8:
      return {y, right};  // left, bottom
    default:
      return {x, y};
  }
}

TEST(PictureCodecTest, TurnsPicturesUpright) {
  // No multiple of anything that rows are handled in.
  constexpr PixelSize seen{90, 62};
  const Image upright = quarteredPicture(seen);
  const char* const names[] = {"TopLeft", "TopRight", "BottomRight", "BottomLeft",
                               "LeftTop", "RightTop", "RightBottom", "LeftBottom"};
  for (int orientation = 1; orientation <= 8; ++orientation) {
    SCOPED_TRACE(orientation);
    const PixelSize stored = orientation >= 5 ? PixelSize{seen.height, seen.width} : seen;
    const Image lying = painted(stored, true, [&](int x, int y) {
      const auto [seenX, seenY] = seenAt(orientation, x, y, stored);
      return upright.row(seenY)[seenX];
    });
    const std::string png = pngFile(lying);
    const std::string exif = exifData(orientation);
    const std::string jpeg = converted("-quality 95", "a.jpg", png);
    const std::pair<const char*, std::string> files[] = {
        {"jpeg", jpegWith(jpeg, '\xE1', std::string("Exif\0\0", 6) + exif)},
        {"png", pngWith(png, "eXIf", exif)},
        {"interlaced png", pngWith(converted("-interlace PNG", "PNG24:a.png", png), "eXIf", exif)},
        {"webp",
         webpWithExif(converted("-define webp:lossless=true", "a.webp", png), stored, exif)},
        // Exif data repeats what the file's properties say, and once is enough.
        {"heic", heicFile(lying, {.orientation = orientation, .exifOrientation = orientation})},
        {"heic, Exif alone", heicFile(upright, {.exifOrientation = orientation})},
        {"tiff",
         converted(std::string("-compress LZW -orient ") + names[orientation - 1], "a.tiff", png)}};
    for (const auto& [name, file] : files) {
      SCOPED_TRACE(name);
      const auto image = decode(file);
      ASSERT_TRUE(image);
      expectQuarters(*image, seen, 4);
    }
  }
}

TEST(PictureCodecTest, KeepsTransparency) {
  // Grey of half strength on the left, nothing on the right.
  const std::string png = pngFile(
      painted(size, false, [](int x, int) { return x < size.width / 2 ? 0x80404040U : 0U; }));
  const struct {
    const char* options;
    const char* output;
    std::uint32_t left = 0x80404040;
  } cases[] = {{"", "PNG32:a.png"},
               {"-colorspace Gray -type GrayscaleAlpha", "PNG:a.png"},
               {"-depth 16", "PNG64:a.png"},
               {"", "PNG8:a.png", 0xFF808080},
               {"-define webp:lossless=true", "a.webp"},
               {"-compress LZW -define tiff:alpha=unassociated", "a.tiff"},
               {"-type TrueColorMatte -define tiff:alpha=unassociated", "a.tiff"},
               {"-type TrueColorMatte -define tiff:alpha=associated", "a.tiff"},
               {"-channel A -threshold 10%", "a.gif", 0xFF808080}};
  for (const auto& item : cases) {
    SCOPED_TRACE(std::string(item.options) + " " + item.output);
    const auto image = decode(converted(item.options, item.output, png));
    ASSERT_TRUE(image);
    ASSERT_FALSE(image->opaque);
    expectPixel(*image, 20, 30, item.left, 1);
    expectPixel(*image, 80, 30, 0, 1);
  }
  const auto heic = decode(heicFile(
      painted(size, false, [](int x, int) { return x < size.width / 2 ? 0x80808080U : 0U; }), {}));
  ASSERT_TRUE(heic);
  ASSERT_FALSE(heic->opaque);
  expectPixel(*heic, 20, 30, 0x80404040, 4);
  expectPixel(*heic, 80, 30, 0, 4);
}

/// A profile whose red means what green means in sRGB, and so on.
std::string rotatedProfile() {
  const cmsCIExyY white{0.3127, 0.3290, 1};
  const cmsCIExyYTRIPLE primaries{{0.30, 0.60, 1}, {0.15, 0.06, 1}, {0.64, 0.33, 1}};
  cmsToneCurve* curve = cmsBuildGamma(nullptr, 2.2);
  cmsToneCurve* curves[] = {curve, curve, curve};
  cmsHPROFILE profile = cmsCreateRGBProfile(&white, &primaries, curves);
  cmsUInt32Number length = 0;
  cmsSaveProfileToMem(profile, nullptr, &length);
  std::string text(length, '\0');
  cmsSaveProfileToMem(profile, text.data(), &length);
  cmsCloseProfile(profile);
  cmsFreeToneCurve(curve);
  return text;
}

TEST(PictureCodecTest, BringsColoursToSrgb) {
  const Image red = painted(size, true, [](int, int) { return 0xFFFF0000U; });
  const std::string png = pngFile(red);
  const std::string profile = rotatedProfile();
  const support::TemporaryDirectory folder;
  support::writeFile(folder / "rotated.icc", profile);
  const std::string attach =
      "-quality 95 -strip -profile '" + (folder / "rotated.icc").native() + "'";
  const std::pair<const char*, std::string> files[] = {
      {"jpeg", converted(attach, "a.jpg", png)},
      {"webp", converted(attach, "a.webp", png)},
      {"tiff", converted(attach, "a.tiff", png)},
      {"png", pngWith(png, "iCCP", profileChunk(profile))},
      {"heic", heicFile(red, {.profile = profile})}};
  for (const auto& [name, file] : files) {
    SCOPED_TRACE(name);
    const auto image = decode(file);
    ASSERT_TRUE(image);
    // What the file calls red is green.
    expectPixel(*image, 40, 30, 0xFF00FF00U, 12);
  }
  const std::string jpeg = converted("-quality 95", "a.jpg", png);
  const auto broken = decode(
      jpegWith(jpeg, '\xE2', std::string("ICC_PROFILE\0\x01\x01", 14) + std::string(200, 'x')));
  ASSERT_TRUE(broken);
  expectPixel(*broken, 40, 30, 0xFFFF0000U, 4);
}

TEST(PictureCodecTest, RefusesDamage) {
  const std::string png = pngFile(noisyPicture(size));
  for (const char* output : {"a.jpg", "PNG24:a.png", "a.gif", "a.webp", "a.tiff", "a.heic"}) {
    const std::string file = converted("-quality 90", output, png);
    for (const std::size_t kept : {file.size() / 2, file.size() * 9 / 10, std::size_t{40},
                                   std::size_t{14}, std::size_t{3}}) {
      SCOPED_TRACE(std::string(output) + " cut to " + std::to_string(kept));
      EXPECT_FALSE(decode(file.substr(0, kept)));
    }
  }
  for (const char* garbage : {"", "\xFF", "no picture", "%PDF-1.4", "<svg/>"})
    EXPECT_EQ(decode(garbage).error(), PictureError::unsupported) << garbage;
}

TEST(PictureCodecTest, RefusesHugeSizesBeforeTheyAreTaken) {
  const std::string png = pngFile(quarteredPicture(size));
  const std::string gif = converted("", "a.gif", png);
  const std::string jpeg = converted("-interlace none", "a.jpg", png);
  const std::string tiff = converted("-endian LSB -compress LZW", "a.tiff", png);
  const std::string webp = converted("-define webp:lossless=true", "a.webp", png);
  const std::string heic = converted("", "a.heic", png);
  const auto frame = jpeg.find("\xFF\xC0");
  ASSERT_NE(frame, std::string::npos);
  const std::string header =
      bigEndian(100'000) + bigEndian(100'000) + std::string("\x08\x02\0\0\0", 5);
  std::string tiffHuge = tiff;
  for (const std::string& tag : {std::string("\0\x01\x03\0\x01\0\0\0\x60\0", 10),
                                 std::string("\x01\x01\x03\0\x01\0\0\0\x40\0", 10)}) {
    const auto at = tiffHuge.find(tag);
    ASSERT_NE(at, std::string::npos);
    tiffHuge = patched(tiffHuge, at + 8, "\xFF\xFF");
  }
  const auto extents = heic.find("ispe");
  ASSERT_NE(extents, std::string::npos);
  const std::pair<const char*, std::string> files[] = {
      {"png", patched(png, 8, pngChunk("IHDR", header))},
      {"gif", patched(gif, 6, "\xFF\xFF\xFF\xFF")},
      {"jpeg", patched(jpeg, frame + 5, "\xFF\xDC\xFF\xDC")},
      {"tiff", tiffHuge},
      {"heic", patched(heic, extents + 8, bigEndian(30'000) + bigEndian(30'000))}};
  for (const auto& [name, file] : files) {
    SCOPED_TRACE(name);
    const auto image = decode(file);
    ASSERT_FALSE(image);
    EXPECT_EQ(image.error(), PictureError::tooLarge);
  }
  // What is coded counts, not what the file says of it.
  const std::string lying = converted("", "a.heic", pngFile(quarteredPicture({2000, 1600})));
  const auto declared = lying.find("ispe");
  ASSERT_NE(declared, std::string::npos);
  const auto refused = decode(patched(lying, declared + 8, bigEndian(64) + bigEndian(64)));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(), PictureError::tooLarge);
  EXPECT_FALSE(decode(webpWithExif(webp, {16384, 16384}, exifData(1))));
}

TEST(PictureCodecTest, WritesJpegWithinItsRoom) {
  const Image image = noisyPicture({200, 150});
  LinuxPictureCodec codec;
  std::vector<std::byte> room(1 << 20);
  // One row at a time, as a source may.
  const auto rows = [&image](int y) { return RowBlock{image.row(y), image.stride, 1}; };
  const auto encode = [&](double quality, std::size_t bytes) {
    return codec.encodeJpeg(image.size, quality, rows, std::span(room).first(bytes));
  };
  const auto fine = encode(0.85, room.size());
  ASSERT_TRUE(fine);
  const auto decoded = codec.decode(std::span(room).first(*fine));
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->size, image.size);
  const auto coarse = encode(0.55, room.size());
  ASSERT_TRUE(coarse);
  EXPECT_LT(*coarse, *fine * 3 / 4);
  EXPECT_EQ(encode(0.55, *coarse), coarse);
  EXPECT_EQ(encode(0.55, *coarse - 1).error(), JpegError::tooLong);
  const auto tooWide = codec.encodeJpeg({70'000, 1}, 0.85, rows, room);
  EXPECT_EQ(tooWide.error(), JpegError::failed);
}

}  // namespace
}  // namespace vesko
