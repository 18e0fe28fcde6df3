#include <gif_lib.h>

#include <algorithm>
#include <cstring>

#include "platform/linux/pictures/picture_decoders.h"
#include "platform/linux/pictures/picture_raster.h"

namespace vesko {
namespace {

struct CloseGif {
  void operator()(GifFileType* file) const {
    int ignored = 0;
    DGifCloseFile(file, &ignored);
  }
};

int readBytes(GifFileType* file, GifByteType* out, int count) {
  auto& rest = *static_cast<std::span<const std::byte>*>(file->UserData);
  const std::size_t given = std::min(rest.size(), static_cast<std::size_t>(std::max(count, 0)));
  if (given > 0) std::memcpy(out, rest.data(), given);
  rest = rest.subspan(given);
  return static_cast<int>(given);
}

/// Moves on to the first frame; what its graphics control says on the way.
bool findFrame(GifFileType* file, int& transparent) {
  for (;;) {
    GifRecordType type = UNDEFINED_RECORD_TYPE;
    if (DGifGetRecordType(file, &type) == GIF_ERROR) return false;
    if (type == IMAGE_DESC_RECORD_TYPE) return DGifGetImageDesc(file) != GIF_ERROR;
    if (type != EXTENSION_RECORD_TYPE) return false;
    int code = 0;
    GifByteType* data = nullptr;
    if (DGifGetExtension(file, &code, &data) == GIF_ERROR) return false;
    GraphicsControlBlock control{};
    if (code == GRAPHICS_EXT_FUNC_CODE && data &&
        DGifExtensionToGCB(data[0], data + 1, &control) != GIF_ERROR)
      transparent = control.TransparentColor;
    while (data) {
      if (DGifGetExtensionNext(file, &data) == GIF_ERROR) return false;
    }
  }
}

/// A colour index for every pixel of the frame.
bool readFrame(GifFileType* file, GifByteType* indices) {
  const int width = file->Image.Width;
  const int height = file->Image.Height;
  struct Pass {
    int begin;
    int step;
  };
  static constexpr Pass progressive[] = {{0, 1}};
  static constexpr Pass interlaced[] = {{0, 8}, {4, 8}, {2, 4}, {1, 2}};
  for (const auto& [begin, step] :
       file->Image.Interlace ? std::span<const Pass>(interlaced) : progressive) {
    for (int y = begin; y < height; y += step) {
      if (DGifGetLine(file, indices + std::ptrdiff_t{y} * width, width) == GIF_ERROR) return false;
    }
  }
  return true;
}

}  // namespace

std::expected<Image, PictureError> decodeGifPicture(std::span<const std::byte> bytes) {
  int ignored = 0;
  const std::unique_ptr<GifFileType, CloseGif> file(DGifOpen(&bytes, readBytes, &ignored));
  int transparent = NO_TRANSPARENT_COLOR;
  if (!file || !findFrame(file.get(), transparent)) return std::unexpected(PictureError::damaged);
  const GifImageDesc& frame = file->Image;
  const ColorMapObject* colors = frame.ColorMap ? frame.ColorMap : file->SColorMap;
  if (!colors || frame.Width < 1 || frame.Height < 1) return std::unexpected(PictureError::damaged);
  // Some writers leave the screen's size out.
  const int width = file->SWidth > 0 ? file->SWidth : frame.Left + frame.Width;
  const int height = file->SHeight > 0 ? file->SHeight : frame.Top + frame.Height;
  const std::uint64_t framePixels = std::uint64_t(frame.Width) * std::uint64_t(frame.Height);
  const std::uint64_t screenPixels = std::uint64_t(width) * std::uint64_t(height);
  auto raster = PictureRaster::make({.width = static_cast<std::uint32_t>(width),
                                     .height = static_cast<std::uint32_t>(height),
                                     .alpha = PictureAlpha::premultiplied,
                                     .decoderBytesPerPixel = framePixels / screenPixels + 1});
  if (!raster) return std::unexpected(raster.error());
  const PageMemory indices(framePixels);
  if (!indices || !readFrame(file.get(), indices.as<GifByteType>()))
    return std::unexpected(PictureError::damaged);

  std::uint32_t palette[256] = {};
  for (int i = 0; i < std::min(colors->ColorCount, 256); ++i) {
    const GifColorType& color = colors->Colors[i];
    palette[i] =
        0xFF000000U | static_cast<std::uint32_t>(color.Red << 16 | color.Green << 8 | color.Blue);
  }
  if (transparent >= 0 && transparent < 256) palette[transparent] = 0;
  const int begin = std::clamp(frame.Left, 0, width);
  const int end = std::clamp(frame.Left + frame.Width, begin, width);
  for (int y = 0; y < height; ++y) {
    std::uint32_t* row = raster->row();
    if (y >= frame.Top && y < frame.Top + frame.Height) {
      const GifByteType* from =
          indices.as<const GifByteType>() + std::ptrdiff_t{y - frame.Top} * frame.Width;
      for (int x = begin; x < end; ++x) row[x] = palette[from[x - frame.Left]];
    }
    raster->rowDone();
  }
  return raster->finish();
}

}  // namespace vesko
