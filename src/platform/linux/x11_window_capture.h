// The pixels of one window, whatever lies over it, by XComposite.
// Protocols: https://cgit.freedesktop.org/xorg/proto/xorgproto/tree/compositeproto.txt and
// damageproto.txt beside it.
#pragma once

#include <xcb/xcb.h>

#include <expected>
#include <vector>

#include "platform/linux/x11_pixels.h"
#include "platform/screen_source.h"

namespace vesko {

/// A set of pixels as disjoint rectangles.
class PixelRegion {
 public:
  PixelRegion() = default;
  explicit PixelRegion(const PixelRect& rect) { add(rect); }

  bool empty() const { return rects_.empty(); }
  const std::vector<PixelRect>& rects() const { return rects_; }
  void subtract(const PixelRect& rect);
  void subtract(const PixelRegion& region);
  void intersect(const PixelRect& rect);

 private:
  void add(const PixelRect& rect);

  std::vector<PixelRect> rects_;
};

PixelRect intersection(const PixelRect& a, const PixelRect& b);

/// A connection in use, and what was learned of its server.
struct CaptureConnection {
  xcb_connection_t* connection = nullptr;
  xcb_window_t root = 0;
  xcb_atom_t compositorSelection = 0;  ///< _NET_WM_CM_Sn, owned by a compositing manager
  xcb_atom_t managedState = 0;         ///< WM_STATE, on every window that a manager looks after
  xcb_atom_t shadowExtents = 0;        ///< _GTK_FRAME_EXTENTS, of shadows that a client draws
  PixelGrabber* grabber = nullptr;
  bool canRedirect = false;  ///< has Composite, Damage and XFixes
};

/// A window that is mapped with all its ancestors, and where it lies on the root window.
struct ViewableWindow {
  /// What a person takes for the window: with its manager's decorations, without shadows.
  PixelRect frame;
  /// The window whose pixels show it: the manager's around it, or itself.
  xcb_window_t pixels = 0;
  PixelRect outside;  ///< of that window, with its border
  int border = 0;
  xcb_visualid_t visual = 0;
};

/// Nothing when there is no such window or it cannot be seen; the root window counts as none.
std::optional<ViewableWindow> findViewableWindow(const CaptureConnection& x11, xcb_window_t window);

/// A hidden part of a window has no pixels until its application paints them: the capture waits
/// for that, half a second at most. Needs `canRedirect`.
std::expected<Image, ScreenSourceError> captureWindowPixels(const CaptureConnection& x11,
                                                            xcb_window_t window);

}  // namespace vesko
