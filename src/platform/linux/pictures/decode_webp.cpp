#include <webp/decode.h>
#include <webp/demux.h>

#include <algorithm>

#include "platform/linux/pictures/exif_orientation.h"
#include "platform/linux/pictures/picture_decoders.h"
#include "platform/linux/pictures/picture_raster.h"

namespace vesko {
namespace {

/// What stands in a chunk that the file has once; valid as long as the file's bytes.
std::span<const std::byte> chunk(const WebPDemuxer* file, const char (&name)[5]) {
  WebPChunkIterator found{};
  if (!WebPDemuxGetChunk(file, name, 1, &found)) return {};
  const std::span bytes(found.chunk.bytes, found.chunk.size);
  WebPDemuxReleaseChunkIterator(&found);
  return std::as_bytes(bytes);
}

struct Frame : WebPIterator {
  explicit Frame(const WebPDemuxer* file) : WebPIterator{} {
    found = WebPDemuxGetFrame(file, 1, this) != 0;
  }
  ~Frame() { WebPDemuxReleaseIterator(this); }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
  bool found;
};

}  // namespace

std::expected<Image, PictureError> decodeWebpPicture(std::span<const std::byte> bytes) {
  const WebPData data{reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
  const std::unique_ptr<WebPDemuxer, decltype(&WebPDemuxDelete)> file(WebPDemux(&data),
                                                                      WebPDemuxDelete);
  if (!file) return std::unexpected(PictureError::damaged);
  const Frame frame(file.get());
  const std::uint32_t width = WebPDemuxGetI(file.get(), WEBP_FF_CANVAS_WIDTH);
  const std::uint32_t height = WebPDemuxGetI(file.get(), WEBP_FF_CANVAS_HEIGHT);
  if (!frame.found || frame.width < 1 || frame.height < 1)
    return std::unexpected(PictureError::damaged);
  const bool covers = frame.x_offset == 0 && frame.y_offset == 0 &&
                      std::cmp_equal(frame.width, width) && std::cmp_equal(frame.height, height);
  auto raster = PictureRaster::make(
      {.width = width,
       .height = height,
       .orientation = exifOrientation(chunk(file.get(), "EXIF")),
       .alpha = frame.has_alpha || !covers ? PictureAlpha::straight : PictureAlpha::none,
       // The frame, and what a lossless one takes to be decoded.
       .decoderBytesPerPixel = 2 * sizeof(std::uint32_t)},
      ColorTransform(chunk(file.get(), "ICCP"), PixelContent::bgra));
  if (!raster) return std::unexpected(raster.error());

  const PageMemory pixels(static_cast<std::size_t>(frame.width) *
                          static_cast<std::size_t>(frame.height) * sizeof(std::uint32_t));
  WebPDecoderConfig config;
  if (!pixels || !WebPInitDecoderConfig(&config)) return std::unexpected(PictureError::damaged);
  config.options.use_threads = 1;
  config.output.colorspace = MODE_BGRA;
  config.output.is_external_memory = 1;
  config.output.u.RGBA = {pixels.as<std::uint8_t>(), frame.width * 4, pixels.size()};
  const bool decoded =
      WebPDecode(frame.fragment.bytes, frame.fragment.size, &config) == VP8_STATUS_OK;
  WebPFreeDecBuffer(&config.output);
  if (!decoded) return std::unexpected(PictureError::damaged);

  // The demuxer has checked that the frame lies on the canvas.
  const auto* from = pixels.as<const std::uint32_t>();
  for (int y = 0; y < raster->height(); ++y) {
    std::uint32_t* row = raster->row();
    if (!covers) std::fill_n(row, raster->width(), 0U);
    if (y >= frame.y_offset && y < frame.y_offset + frame.height) {
      std::copy_n(from, frame.width, row + frame.x_offset);
      from += frame.width;
    }
    raster->rowDone();
  }
  return raster->finish();
}

}  // namespace vesko
