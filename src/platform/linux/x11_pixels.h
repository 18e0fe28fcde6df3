// Pixels of an X drawable, by MIT-SHM where the server shares this machine's memory.
// Protocols: https://www.x.org/releases/current/doc/xproto/x11protocol.html (GetImage) and
// https://www.x.org/releases/current/doc/xextproto/shm.html (version 1.2).
#pragma once

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <memory>
#include <optional>
#include <span>

#include "platform/image.h"

namespace vesko {

struct PixelRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool operator==(const PixelRect&) const = default;
};

/// How the pixels of a drawable are laid out in an image.
struct PixelFormat {
  int bitsPerPixel = 32;
  int scanlinePad = 32;  ///< bits
  bool mostSignificantFirst = false;
  std::uint32_t red = 0xFF0000;
  std::uint32_t green = 0xFF00;
  std::uint32_t blue = 0xFF;
  std::uint32_t alpha = 0;  ///< 0 when there is none
  bool operator==(const PixelFormat&) const = default;

  std::size_t bytesPerRow(int width) const;
};

/// Nothing for an unknown visual, or one whose pixels are indices and no colours.
std::optional<PixelFormat> pixelFormatOf(const xcb_setup_t* setup, xcb_visualid_t visual);

/// Pixels of any direct-colour format as an image of our own. `bytes` holds all rows.
std::optional<Image> convertPixels(std::span<const std::byte> bytes, PixelSize size,
                                   const PixelFormat& format);

/// An image whose pixels only its maker may still write.
struct GrabbedImage {
  Image image;
  std::uint32_t* pixels = nullptr;
};

class SharedSegment;

/// Reads pixels over one connection. Not synchronised.
///
/// Keeps its shared memory for the next grab: on a 3840x2160 screen that takes 2 ms instead of 60,
/// most of which the server and we would spend on touching fresh pages.
class PixelGrabber {
 public:
  explicit PixelGrabber(xcb_connection_t* connection);
  PixelGrabber(const PixelGrabber&) = delete;
  PixelGrabber& operator=(const PixelGrabber&) = delete;
  ~PixelGrabber();

  /// Reads `area` of the drawable, which must lie inside it. The image outlives the grabber and
  /// the connection. Nothing when the server refuses.
  std::optional<GrabbedImage> grab(xcb_drawable_t drawable, const PixelRect& area,
                                   const PixelFormat& format);

 private:
  /// Null when the server cannot share this machine's memory, or refuses the drawable.
  std::shared_ptr<SharedSegment> grabShared(xcb_drawable_t drawable, const PixelRect& area,
                                            std::size_t size);

  xcb_connection_t* connection_;
  bool sharesMemory_;
  std::shared_ptr<SharedSegment> segment_;
  xcb_shm_seg_t segmentId_ = 0;
};

}  // namespace vesko
