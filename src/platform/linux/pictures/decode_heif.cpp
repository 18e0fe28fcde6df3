#include <libheif/heif.h>

#include <algorithm>
#include <vector>

#include "base/mutex.h"
#include "platform/linux/pictures/hevc_decoder.h"
#include "platform/linux/pictures/picture_decoders.h"
#include "platform/linux/pictures/picture_raster.h"
#include "platform/linux/pictures/pixel_rows.h"

namespace vesko {
namespace {

/// The library's planes, the frames of its decoder and its conversion.
constexpr std::uint64_t decoderBytes = 8;
constexpr int maxSide = 16384;
constexpr std::uint64_t maxPixels = maxPictureBytes / (decoderBytes + sizeof(std::uint32_t));

template <auto release>
struct Release {
  template <class T>
  void operator()(T* held) const {
    release(held);
  }
};
using Context = std::unique_ptr<heif_context, Release<heif_context_free>>;
using Handle = std::unique_ptr<heif_image_handle, Release<heif_image_handle_release>>;
using Decoded = std::unique_ptr<heif_image, Release<heif_image_release>>;
using Options = std::unique_ptr<heif_decoding_options, Release<heif_decoding_options_free>>;

bool failed(const heif_error& error) {
  return error.code != heif_error_Ok;
}

PictureError meaning(const heif_error& error) {
  if (error.code == heif_error_Unsupported_feature || error.code == heif_error_Unsupported_filetype)
    return PictureError::unsupported;
  return error.code == heif_error_Memory_allocation_error ? PictureError::tooLarge
                                                          : PictureError::damaged;
}

ColorTransform colorsOf(const heif_image_handle* handle) {
  std::vector<std::byte> profile(heif_image_handle_get_raw_color_profile_size(handle));
  if (profile.empty() || failed(heif_image_handle_get_raw_color_profile(handle, profile.data())))
    return {};
  return {profile, PixelContent::bgra};
}

/// What a file declares is what may be decoded: frames of no more pixels, and tiles put together on
/// a canvas of no longer sides. False when that is too large itself.
bool boundByDeclaredSize(heif_context* context, const heif_image_handle* handle) {
  // Before it is clipped and turned.
  const int width = std::max(heif_image_handle_get_ispe_width(handle), 1);
  const int height = std::max(heif_image_handle_get_ispe_height(handle), 1);
  const auto area = [=](int beyond) {
    return static_cast<std::uint64_t>(width + beyond) * static_cast<std::uint64_t>(height + beyond);
  };
  if (area(0) > maxPixels) return false;
  // Frames are whole blocks; tiles reach beyond the edge, and two are decoded at a time.
  constexpr int overhang = 1024;
  boundHevcFrames(2 * area(overhang));
  heif_context_set_maximum_image_size_limit(context, std::max(width, height) + 1);
  return true;
}

}  // namespace

std::expected<Image, PictureError> decodeHeifPicture(std::span<const std::byte> file) {
  // One at a time: all frames that are being decoded count together.
  static Mutex decoding;
  const MutexLock lock(decoding);
  const Context context(heif_context_alloc());
  if (!context) return std::unexpected(PictureError::tooLarge);
  heif_context_set_maximum_image_size_limit(context.get(), maxSide);
  heif_context_set_max_decoding_threads(context.get(), 2);
  if (const auto error = heif_context_read_from_memory_without_copy(context.get(), file.data(),
                                                                    file.size(), nullptr);
      failed(error))
    return std::unexpected(meaning(error));
  heif_image_handle* found = nullptr;
  if (const auto error = heif_context_get_primary_image_handle(context.get(), &found);
      failed(error))
    return std::unexpected(meaning(error));
  const Handle handle(found);
  if (!boundByDeclaredSize(context.get(), handle.get()))
    return std::unexpected(PictureError::tooLarge);

  const bool hasAlpha = heif_image_handle_has_alpha_channel(handle.get()) != 0;
  const bool premultiplied = heif_image_handle_is_premultiplied_alpha(handle.get()) != 0;
  // The library has turned it upright by then; Exif data repeats what the file's properties say.
  PictureForm form{
      .width = static_cast<std::uint32_t>(std::max(heif_image_handle_get_width(handle.get()), 0)),
      .height = static_cast<std::uint32_t>(std::max(heif_image_handle_get_height(handle.get()), 0)),
      .alpha = !hasAlpha       ? PictureAlpha::none
               : premultiplied ? PictureAlpha::premultiplied
                               : PictureAlpha::straight,
      .decoderBytesPerPixel = decoderBytes};
  if (auto room = PictureRaster::make(form); !room) return std::unexpected(room.error());

  const Options options(heif_decoding_options_alloc());
  if (!options) return std::unexpected(PictureError::tooLarge);
  options->convert_hdr_to_8bit = 1;
  heif_image* decoded = nullptr;
  const auto error = heif_decode_image(
      handle.get(), &decoded, heif_colorspace_RGB,
      hasAlpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB, options.get());
  const Decoded image(decoded);
  if (failed(error)) return std::unexpected(meaning(error));

  int stride = 0;
  const std::uint8_t* from =
      heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
  form.width = static_cast<std::uint32_t>(
      std::max(heif_image_get_width(image.get(), heif_channel_interleaved), 0));
  form.height = static_cast<std::uint32_t>(
      std::max(heif_image_get_height(image.get(), heif_channel_interleaved), 0));
  if (!from) return std::unexpected(PictureError::damaged);
  auto raster = PictureRaster::make(form, colorsOf(handle.get()));
  if (!raster) return std::unexpected(raster.error());
  for (int y = 0; y < raster->height(); ++y, from += stride) {
    std::uint32_t* row = raster->row();
    if (hasAlpha) {
      std::copy_n(from, 4 * raster->width(), reinterpret_cast<std::uint8_t*>(row));
      swapRedAndBlue(row, raster->width());
    } else {
      fromRgb(from, row, raster->width());
    }
    raster->rowDone();
  }
  return raster->finish();
}

}  // namespace vesko
