#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/linux/pictures/exif_orientation.h"
#include "platform/linux/pictures/jpeg_guard.h"
#include "platform/linux/pictures/picture_decoders.h"
#include "platform/linux/pictures/picture_raster.h"

namespace vesko {
namespace {

constexpr int exifMarker = JPEG_APP0 + 1;
constexpr int profileMarker = JPEG_APP0 + 2;
constexpr unsigned wholeMarker = 0xFFFF;

/// More passes over the picture than any writer makes, and few enough for a file that is made to
/// take long.
constexpr int maxScans = 100;

void limitScans(j_common_ptr any) {
  const auto* file = reinterpret_cast<j_decompress_ptr>(any);
  if (file->input_scan_number > maxScans) any->err->error_exit(any);
}

class JpegReader {
 public:
  JpegReader() { file_.err = guard_.handlers(); }
  ~JpegReader() { jpeg_destroy_decompress(&file_); }
  JpegReader(const JpegReader&) = delete;
  JpegReader& operator=(const JpegReader&) = delete;

  std::expected<Image, PictureError> read(std::span<const std::byte> bytes);

 private:
  bool readHeader(std::span<const std::byte> bytes);
  int orientation() const;
  ColorTransform colors(PixelContent content);
  /// Bytes for all coefficients, which a file of several passes needs at once.
  std::uint64_t coefficientBytes() const;

  JpegGuard guard_;
  jpeg_decompress_struct file_{};
  jpeg_progress_mgr progress_{};
};

bool JpegReader::readHeader(std::span<const std::byte> bytes) {
  return guard_.run([&] {
    jpeg_create_decompress(&file_);
    jpeg_mem_src(&file_, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    jpeg_save_markers(&file_, exifMarker, wholeMarker);
    jpeg_save_markers(&file_, profileMarker, wholeMarker);
    jpeg_read_header(&file_, TRUE);
    progress_.progress_monitor = limitScans;
    file_.progress = &progress_;
  });
}

int JpegReader::orientation() const {
  for (const auto* marker = file_.marker_list; marker; marker = marker->next) {
    if (marker->marker == exifMarker && marker->data_length > 6 &&
        std::memcmp(marker->data, "Exif\0\0", 6) == 0)
      return exifOrientation(std::as_bytes(std::span(marker->data, marker->data_length)));
  }
  return 1;
}

ColorTransform JpegReader::colors(PixelContent content) {
  JOCTET* data = nullptr;
  unsigned length = 0;
  // A profile that cannot be put together is none.
  (void)guard_.run([&] { jpeg_read_icc_profile(&file_, &data, &length); });
  const std::unique_ptr<JOCTET, decltype(&std::free)> owner(data, std::free);
  return {std::as_bytes(std::span(data, length)), content};
}

std::uint64_t JpegReader::coefficientBytes() const {
  std::uint64_t bytes = 0;
  for (int i = 0; i < file_.num_components; ++i) {
    const jpeg_component_info& part = file_.comp_info[i];
    bytes += std::uint64_t{part.width_in_blocks} * part.height_in_blocks * sizeof(JBLOCK);
  }
  return bytes;
}

std::expected<Image, PictureError> JpegReader::read(std::span<const std::byte> bytes) {
  if (!readHeader(bytes)) return std::unexpected(PictureError::damaged);
  PixelContent content = PixelContent::bgra;
  switch (file_.num_components) {
    case 1:
    case 3:
      file_.out_color_space = JCS_EXT_BGRX;
      break;
    case 4:
      file_.out_color_space = JCS_CMYK;
      content = file_.saw_Adobe_marker ? PixelContent::cmykInverted : PixelContent::cmyk;
      break;
    default:
      return std::unexpected(PictureError::unsupported);
  }
  PictureForm form{
      .width = file_.image_width, .height = file_.image_height, .orientation = orientation()};
  const std::uint64_t pixels = std::uint64_t{form.width} * form.height;
  if (jpeg_has_multiple_scans(&file_) && pixels > 0)
    form.decoderBytesPerPixel = (coefficientBytes() + pixels - 1) / pixels;
  auto raster = PictureRaster::make(form, colors(content));
  if (!raster) return std::unexpected(raster.error());

  const bool started = guard_.run([&] { jpeg_start_decompress(&file_); });
  while (started && file_.output_scanline < file_.output_height) {
    JSAMPROW row = reinterpret_cast<JSAMPROW>(raster->row());
    if (!guard_.run([&] { jpeg_read_scanlines(&file_, &row, 1); })) break;
    raster->rowDone();
  }
  if (!started || file_.output_scanline < file_.output_height)
    return std::unexpected(PictureError::damaged);
  return raster->finish();
}

}  // namespace

std::expected<Image, PictureError> decodeJpegPicture(std::span<const std::byte> file) {
  JpegReader reader;
  return reader.read(file);
}

}  // namespace vesko
