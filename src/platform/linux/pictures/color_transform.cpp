#include "platform/linux/pictures/color_transform.h"

#include <lcms2.h>

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace vesko {
namespace {

struct CloseProfile {
  void operator()(void* profile) const { cmsCloseProfile(profile); }
};
using Profile = std::unique_ptr<void, CloseProfile>;

int difference(std::uint32_t a, std::uint32_t b) {
  int most = 0;
  for (const int shift : {16, 8, 0}) {
    const int first = static_cast<int>(a >> shift & 255);
    const int second = static_cast<int>(b >> shift & 255);
    most = std::max(most, std::abs(first - second));
  }
  return most;
}

/// Whether colours all over the space stay where they are: most profiles are that of sRGB itself.
bool isIdentity(void* transform) {
  for (std::uint32_t i = 0; i < 6 * 6 * 6; ++i) {
    const std::uint32_t before =
        0xFF000000U | (i % 6 * 51) << 16 | (i / 6 % 6 * 51) << 8 | (i / 36 * 51);
    std::uint32_t after = before;
    cmsDoTransform(transform, &before, &after, 1);
    if (difference(before, after) > 2) return false;
  }
  return true;
}

std::uint32_t plainColor(std::uint32_t pixel, bool inverted) {
  if (!inverted) pixel = ~pixel;
  const std::uint32_t light = pixel >> 24;
  const auto channel = [&](int shift) { return ((pixel >> shift & 255) * light + 127) / 255; };
  return 0xFF000000U | channel(0) << 16 | channel(8) << 8 | channel(16);
}

}  // namespace

ColorTransform::ColorTransform(std::span<const std::byte> profile, PixelContent content)
    : content_(content) {
  if (profile.empty() || profile.size() > std::numeric_limits<cmsUInt32Number>::max()) return;
  const Profile from(
      cmsOpenProfileFromMem(profile.data(), static_cast<cmsUInt32Number>(profile.size())));
  const bool isBgra = content == PixelContent::bgra;
  if (!from || cmsGetColorSpace(from.get()) != (isBgra ? cmsSigRgbData : cmsSigCmykData)) return;
  const Profile to(cmsCreate_sRGBProfile());
  const cmsUInt32Number format = isBgra                          ? TYPE_BGRA_8
                                 : content == PixelContent::cmyk ? TYPE_CMYK_8
                                                                 : TYPE_CMYK_8_REV;
  // Without the cache of the last colour, which threads would share.
  const cmsUInt32Number flags = cmsFLAGS_NOCACHE | (isBgra ? cmsFLAGS_COPY_ALPHA : 0U);
  cmsHTRANSFORM made = cmsCreateTransform(from.get(), format, to.get(), TYPE_BGRA_8,
                                          INTENT_RELATIVE_COLORIMETRIC, flags);
  if (!made) return;
  transform_ = {made, cmsDeleteTransform};
  if (isBgra && isIdentity(made)) transform_.reset();
}

void ColorTransform::apply(std::uint32_t* pixels, std::size_t count) const {
  if (transform_) {
    cmsDoTransform(transform_.get(), pixels, pixels, static_cast<cmsUInt32Number>(count));
  } else if (content_ != PixelContent::bgra) {
    const bool inverted = content_ == PixelContent::cmykInverted;
    std::ranges::for_each_n(pixels, static_cast<std::ptrdiff_t>(count),
                            [=](std::uint32_t& pixel) { pixel = plainColor(pixel, inverted); });
  }
}

}  // namespace vesko
