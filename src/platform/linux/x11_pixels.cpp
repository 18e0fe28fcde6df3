#include "platform/linux/x11_pixels.h"

#include <sys/mman.h>
#include <sys/socket.h>

#include <atomic>
#include <bit>
#include <utility>

#include "base/unique_fd.h"
#include "platform/linux/x11_connection.h"

namespace vesko {

/// Memory that an X server can be given; lives as long as an image in it.
class SharedSegment {
 public:
  explicit SharedSegment(std::size_t size) : size_(size) {
    fd_.reset(::memfd_create("capture", MFD_CLOEXEC));
    if (!fd_ || ::ftruncate(fd_.get(), static_cast<off_t>(size)) != 0) return;
    void* mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
    if (mapped != MAP_FAILED) data_ = mapped;
  }
  SharedSegment(const SharedSegment&) = delete;
  SharedSegment& operator=(const SharedSegment&) = delete;
  ~SharedSegment() {
    if (data_) ::munmap(data_, size_);
  }

  /// Null when there was no memory.
  void* data() const { return data_; }
  std::size_t size() const { return size_; }
  int releaseFd() { return fd_.release(); }

 private:
  std::size_t size_;
  UniqueFd fd_;
  void* data_ = nullptr;
};

namespace {

constexpr std::uint32_t allPlanes = ~0U;

bool isNative(const PixelFormat& format) {
  return format.bitsPerPixel == 32 &&
         format.mostSignificantFirst == (std::endian::native == std::endian::big) &&
         format.red == 0xFF0000 && format.green == 0xFF00 && format.blue == 0xFF;
}

/// Memory for pixels that live on the heap, filled by the caller.
GrabbedImage makeImage(PixelSize size, bool opaque) {
  auto memory = std::make_shared_for_overwrite<std::uint32_t[]>(
      static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height));
  std::uint32_t* pixels = memory.get();
  return {{.size = size,
           .stride = size.width,
           .opaque = opaque,
           .pixels = pixels,
           .storage = std::move(memory)},
          pixels};
}

/// Scales the bits under `mask` to eight.
std::uint32_t channel(std::uint32_t pixel, std::uint32_t mask) {
  const std::uint32_t most = mask >> std::countr_zero(mask);
  const std::uint32_t value = (pixel & mask) >> std::countr_zero(mask);
  return static_cast<std::uint32_t>((std::uint64_t{value} * 255 + most / 2) / most);
}

void convert(const std::byte* bytes, PixelSize size, const PixelFormat& format,
             std::uint32_t* out) {
  const int step = format.bitsPerPixel / 8;
  const std::size_t rowBytes = format.bytesPerRow(size.width);
  for (int y = 0; y < size.height; ++y) {
    const std::byte* from = bytes + static_cast<std::size_t>(y) * rowBytes;
    for (int x = 0; x < size.width; ++x, from += step) {
      std::uint32_t pixel = 0;
      for (int i = 0; i < step; ++i) {
        const int place = format.mostSignificantFirst ? step - 1 - i : i;
        pixel |= std::to_integer<std::uint32_t>(from[i]) << (8 * place);
      }
      const std::uint32_t alpha = format.alpha != 0 ? channel(pixel, format.alpha) : 255;
      *out++ = alpha << 24 | channel(pixel, format.red) << 16 | channel(pixel, format.green) << 8 |
               channel(pixel, format.blue);
    }
  }
}

/// Memory goes to the server by file descriptor, so it must be reached by a local socket.
bool canShareMemory(xcb_connection_t* connection) {
  int domain = 0;
  socklen_t length = sizeof(domain);
  const int socket = xcb_get_file_descriptor(connection);
  if (::getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &domain, &length) != 0 || domain != AF_UNIX)
    return false;
  const auto* extension = xcb_get_extension_data(connection, &xcb_shm_id);
  if (!extension || !extension->present) return false;
  const XcbPtr<xcb_shm_query_version_reply_t> version(
      xcb_shm_query_version_reply(connection, xcb_shm_query_version(connection), nullptr));
  return version && std::pair(version->major_version, version->minor_version) >=
                        std::pair(std::uint16_t{1}, std::uint16_t{2});
}

}  // namespace

std::size_t PixelFormat::bytesPerRow(int width) const {
  const auto bits = static_cast<std::size_t>(width) * static_cast<std::size_t>(bitsPerPixel);
  const auto pad = static_cast<std::size_t>(scanlinePad);
  return (bits + pad - 1) / pad * pad / 8;
}

std::optional<PixelFormat> pixelFormatOf(const xcb_setup_t* setup, xcb_visualid_t visual) {
  for (auto screens = xcb_setup_roots_iterator(setup); screens.rem > 0; xcb_screen_next(&screens)) {
    for (auto depths = xcb_screen_allowed_depths_iterator(screens.data); depths.rem > 0;
         xcb_depth_next(&depths)) {
      const int depth = depths.data->depth;
      for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem > 0;
           xcb_visualtype_next(&visuals)) {
        const xcb_visualtype_t& type = *visuals.data;
        if (type.visual_id != visual) continue;
        if (type.red_mask == 0 || type.green_mask == 0 || type.blue_mask == 0) return std::nullopt;
        PixelFormat format;
        format.mostSignificantFirst = setup->image_byte_order == XCB_IMAGE_ORDER_MSB_FIRST;
        format.red = type.red_mask;
        format.green = type.green_mask;
        format.blue = type.blue_mask;
        // X names no alpha mask: by convention alpha is what depth 32 leaves over.
        if (depth == 32) format.alpha = ~(type.red_mask | type.green_mask | type.blue_mask);
        for (auto formats = xcb_setup_pixmap_formats_iterator(setup); formats.rem > 0;
             xcb_format_next(&formats)) {
          if (formats.data->depth != depth) continue;
          format.bitsPerPixel = formats.data->bits_per_pixel;
          format.scanlinePad = formats.data->scanline_pad;
          if (format.bitsPerPixel % 8 != 0) return std::nullopt;
          return format;
        }
        return std::nullopt;
      }
    }
  }
  return std::nullopt;
}

std::optional<Image> convertPixels(std::span<const std::byte> bytes, PixelSize size,
                                   const PixelFormat& format) {
  if (bytes.size() < format.bytesPerRow(size.width) * static_cast<std::size_t>(size.height))
    return std::nullopt;
  GrabbedImage made = makeImage(size, format.alpha == 0);
  convert(bytes.data(), size, format, made.pixels);
  return std::move(made.image);
}

PixelGrabber::PixelGrabber(xcb_connection_t* connection)
    : connection_(connection), sharesMemory_(canShareMemory(connection)) {}

PixelGrabber::~PixelGrabber() = default;

std::shared_ptr<SharedSegment> PixelGrabber::grabShared(xcb_drawable_t drawable,
                                                        const PixelRect& area, std::size_t size) {
  if (!sharesMemory_) return nullptr;
  // An image that is still in use keeps its segment; this thread alone hands out new references.
  const bool reusable = segment_ && segment_->size() >= size && segment_.use_count() == 1;
  if (reusable) {
    std::atomic_thread_fence(std::memory_order_acquire);
  } else {
    // The server lets go of the old one, and with it the memory unless an image keeps it.
    if (segment_) xcb_shm_detach(connection_, segmentId_);
    segment_ = std::make_shared<SharedSegment>(size);
    if (!segment_->data()) {
      segment_.reset();
      return nullptr;
    }
    segmentId_ = xcb_generate_id(connection_);
    xcb_shm_attach_fd(connection_, segmentId_, segment_->releaseFd(), 0);
  }
  const XcbPtr<xcb_shm_get_image_reply_t> reply(xcb_shm_get_image_reply(
      connection_,
      xcb_shm_get_image(connection_, drawable, static_cast<std::int16_t>(area.x),
                        static_cast<std::int16_t>(area.y), static_cast<std::uint16_t>(area.width),
                        static_cast<std::uint16_t>(area.height), allPlanes,
                        XCB_IMAGE_FORMAT_Z_PIXMAP, segmentId_, 0),
      nullptr));
  if (!reply || reply->size > size) return nullptr;
  return segment_;
}

std::optional<GrabbedImage> PixelGrabber::grab(xcb_drawable_t drawable, const PixelRect& area,
                                               const PixelFormat& format) {
  const PixelSize size{area.width, area.height};
  const std::size_t total = format.bytesPerRow(area.width) * static_cast<std::size_t>(area.height);
  const bool opaque = format.alpha == 0;
  auto shared = grabShared(drawable, area, total);
  if (shared && isNative(format)) {
    auto* pixels = static_cast<std::uint32_t*>(shared->data());
    return GrabbedImage{{.size = size,
                         .stride = static_cast<std::ptrdiff_t>(format.bytesPerRow(area.width) / 4),
                         .opaque = opaque,
                         .pixels = pixels,
                         .storage = std::move(shared)},
                        pixels};
  }
  XcbPtr<xcb_get_image_reply_t> reply;
  const std::byte* bytes = nullptr;
  if (shared) {
    bytes = static_cast<const std::byte*>(shared->data());
  } else {
    reply.reset(xcb_get_image_reply(
        connection_,
        xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, drawable,
                      static_cast<std::int16_t>(area.x), static_cast<std::int16_t>(area.y),
                      static_cast<std::uint16_t>(area.width),
                      static_cast<std::uint16_t>(area.height), allPlanes),
        nullptr));
    if (!reply || static_cast<std::size_t>(xcb_get_image_data_length(reply.get())) < total)
      return std::nullopt;
    bytes = reinterpret_cast<const std::byte*>(xcb_get_image_data(reply.get()));
  }
  GrabbedImage made = makeImage(size, opaque);
  convert(bytes, size, format, made.pixels);
  return made;
}

}  // namespace vesko
