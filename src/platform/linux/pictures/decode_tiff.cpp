#include <tiffio.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/linux/pictures/picture_decoders.h"
#include "platform/linux/pictures/picture_raster.h"
#include "platform/linux/pictures/pixel_rows.h"

namespace vesko {
namespace {

constexpr tmsize_t maxAllocation = tmsize_t{512} << 20;
/// A chain of directories may lead in circles.
constexpr int maxPages = 64;

struct Source {
  std::span<const std::byte> bytes;
  std::size_t at = 0;

  static Source& of(thandle_t handle) { return *static_cast<Source*>(handle); }
};

tmsize_t readBytes(thandle_t handle, void* out, tmsize_t count) {
  Source& source = Source::of(handle);
  if (count <= 0 || source.at >= source.bytes.size()) return 0;
  const std::size_t given =
      std::min(static_cast<std::size_t>(count), source.bytes.size() - source.at);
  std::memcpy(out, source.bytes.data() + source.at, given);
  source.at += given;
  return static_cast<tmsize_t>(given);
}

tmsize_t writeNothing(thandle_t, void*, tmsize_t) {
  return 0;
}

toff_t seekTo(thandle_t handle, toff_t offset, int whence) {
  Source& source = Source::of(handle);
  const toff_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? source.at : source.bytes.size();
  source.at = static_cast<std::size_t>(base + offset);
  return source.at;
}

int closeNothing(thandle_t) {
  return 0;
}

toff_t sizeOf(thandle_t handle) {
  return Source::of(handle).bytes.size();
}

// The library only reads what it has mapped.
int mapAll(thandle_t handle, void** base, toff_t* size) {
  const Source& source = Source::of(handle);
  *base = const_cast<std::byte*>(source.bytes.data());
  *size = source.bytes.size();
  return 1;
}

void unmapNothing(thandle_t, void*, toff_t) {}

int keepQuiet(TIFF*, void*, const char*, const char*, va_list) {
  return 1;
}

using File = std::unique_ptr<TIFF, decltype(&TIFFClose)>;

File open(Source& source) {
  const std::unique_ptr<TIFFOpenOptions, decltype(&TIFFOpenOptionsFree)> options(
      TIFFOpenOptionsAlloc(), TIFFOpenOptionsFree);
  TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), maxAllocation);
  TIFFOpenOptionsSetErrorHandlerExtR(options.get(), keepQuiet, nullptr);
  TIFFOpenOptionsSetWarningHandlerExtR(options.get(), keepQuiet, nullptr);
  return {TIFFClientOpenExt("picture", "r", &source, readBytes, writeNothing, seekTo, closeNothing,
                            sizeOf, mapAll, unmapNothing, options.get()),
          TIFFClose};
}

/// Files of cameras begin with a thumbnail, and their pictures are no TIFF ones.
bool findPicture(TIFF* file) {
  for (int page = 0; page < maxPages; ++page) {
    std::uint32_t kind = 0;
    std::uint16_t meaning = 0;
    std::uint8_t* version = nullptr;
    std::uint16_t versionLength = 0;
    if (TIFFGetField(file, TIFFTAG_DNGVERSION, &versionLength, &version)) return false;
    TIFFGetFieldDefaulted(file, TIFFTAG_SUBFILETYPE, &kind);
    const bool pixels = TIFFGetField(file, TIFFTAG_PHOTOMETRIC, &meaning) &&
                        meaning != PHOTOMETRIC_CFA && meaning != PHOTOMETRIC_MASK;
    if (pixels && (kind & (FILETYPE_REDUCEDIMAGE | FILETYPE_MASK)) == 0) return true;
    if (!TIFFReadDirectory(file)) return false;
  }
  return false;
}

/// The raster that the library fills, and one strip or tile of the file.
std::uint64_t decoderBytesPerPixel(TIFF* file, std::uint64_t pixels) {
  const tmsize_t part = TIFFIsTiled(file) ? TIFFTileSize(file) : TIFFStripSize(file);
  return sizeof(std::uint32_t) + static_cast<std::uint64_t>(std::max<tmsize_t>(part, 0)) /
                                     std::max<std::uint64_t>(pixels, 1);
}

/// Canon's raw files call a preview their first page.
bool isCanonRaw(std::span<const std::byte> file) {
  return file.size() > 10 && std::memcmp(&file[8], "CR", 2) == 0;
}

}  // namespace

std::expected<Image, PictureError> decodeTiffPicture(std::span<const std::byte> bytes) {
  if (isCanonRaw(bytes)) return std::unexpected(PictureError::unsupported);
  Source source{bytes};
  const File file = open(source);
  if (!file) return std::unexpected(PictureError::damaged);
  if (!findPicture(file.get())) return std::unexpected(PictureError::unsupported);

  PictureForm form;
  std::uint16_t orientation = ORIENTATION_TOPLEFT;
  TIFFGetField(file.get(), TIFFTAG_IMAGEWIDTH, &form.width);
  TIFFGetField(file.get(), TIFFTAG_IMAGELENGTH, &form.height);
  TIFFGetFieldDefaulted(file.get(), TIFFTAG_ORIENTATION, &orientation);
  form.decoderBytesPerPixel =
      decoderBytesPerPixel(file.get(), std::uint64_t{form.width} * form.height);
  if (orientation >= 1 && orientation <= 8) form.orientation = orientation;
  std::uint32_t profileLength = 0;
  const void* profile = nullptr;
  ColorTransform colors;
  // The library turns CMYK into RGB by itself, so that a profile of inks has nothing to say.
  if (TIFFGetField(file.get(), TIFFTAG_ICCPROFILE, &profileLength, &profile) && profile)
    colors = {std::span(static_cast<const std::byte*>(profile), profileLength), PixelContent::bgra};

  std::array<char, 1024> reason;
  if (!TIFFRGBAImageOK(file.get(), reason.data()))
    return std::unexpected(PictureError::unsupported);
  // Before the library takes memory of that size.
  if (auto room = PictureRaster::make(form); !room) return std::unexpected(room.error());
  TIFFRGBAImage image{};
  if (!TIFFRGBAImageBegin(&image, file.get(), 1, reason.data()))
    return std::unexpected(PictureError::damaged);
  const std::unique_ptr<TIFFRGBAImage, decltype(&TIFFRGBAImageEnd)> reading(&image,
                                                                            TIFFRGBAImageEnd);
  // Rows as they are stored; the raster knows all eight orientations.
  image.req_orientation = image.orientation;
  // Of grey pictures with straight alpha the library leaves the colours as they are.
  const bool grey =
      image.photometric == PHOTOMETRIC_MINISBLACK || image.photometric == PHOTOMETRIC_MINISWHITE;
  form.alpha = image.alpha == 0                                ? PictureAlpha::none
               : grey && image.alpha == EXTRASAMPLE_UNASSALPHA ? PictureAlpha::straight
                                                               : PictureAlpha::premultiplied;
  auto raster = PictureRaster::make(form, std::move(colors));
  if (!raster) return std::unexpected(raster.error());
  const std::size_t width = form.width;
  const PageMemory pixels(width * form.height * sizeof(std::uint32_t));
  if (!pixels || !TIFFRGBAImageGet(&image, pixels.as<std::uint32_t>(), form.width, form.height))
    return std::unexpected(PictureError::damaged);
  const auto* from = pixels.as<const std::uint32_t>();
  for (int y = 0; y < raster->height(); ++y, from += width) {
    std::uint32_t* row = raster->row();
    std::copy_n(from, width, row);
    swapRedAndBlue(row, raster->width());
    raster->rowDone();
  }
  return raster->finish();
}

}  // namespace vesko
