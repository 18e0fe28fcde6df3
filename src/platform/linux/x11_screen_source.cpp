#include "platform/linux/x11_screen_source.h"

#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <system_error>
#include <utility>

#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_pixels.h"
#include "platform/linux/x11_watch.h"
#include "platform/linux/x11_window_capture.h"

namespace vesko {
namespace {

std::unexpected<ScreenSourceError> fail(ScreenSourceError error) {
  return std::unexpected(error);
}

Rect toPoints(const PixelRect& rect) {
  return {static_cast<double>(rect.x), static_cast<double>(rect.y), static_cast<double>(rect.width),
          static_cast<double>(rect.height)};
}

struct Monitor {
  std::uint32_t id = 0;
  PixelRect rect;
  bool primary = false;
};

bool isPresent(xcb_connection_t* connection, xcb_extension_t& extension) {
  const auto* data = xcb_get_extension_data(connection, &extension);
  return data && data->present;
}

/// One channel of a premultiplied colour laid over another.
std::uint32_t over(std::uint32_t top, std::uint32_t alpha, std::uint32_t below) {
  return std::min(255U, top + (below * (255 - alpha) + 127) / 255);
}

}  // namespace

/// One connection and what its server can do.
class X11ScreenSource::Session {
 public:
  /// Null while there is no server; otherwise valid until the next call.
  const CaptureConnection* connect() {
    use_.connection = x11_.get();
    if (!use_.connection) return nullptr;
    watch_.emplace(use_.connection);
    if (known_ != x11_.generation()) learn();
    return &use_;
  }

  xcb_visualid_t rootVisual() const { return x11_.screen()->root_visual; }

  /// Events and errors that nobody waits for would pile up.
  void end() {
    watch_.reset();
    if (!use_.connection) return;
    while (XcbPtr<xcb_generic_event_t>(xcb_poll_for_event(use_.connection))) {
    }
  }

  /// Nothing when the server did not answer.
  std::optional<std::vector<Monitor>> monitors() {
    std::vector<Monitor> found;
    if (hasMonitors_) {
      const XcbPtr<xcb_randr_get_monitors_reply_t> reply(xcb_randr_get_monitors_reply(
          use_.connection, xcb_randr_get_monitors(use_.connection, use_.root, 1), nullptr));
      if (!reply) return std::nullopt;
      for (auto each = xcb_randr_get_monitors_monitors_iterator(reply.get()); each.rem > 0;
           xcb_randr_monitor_info_next(&each)) {
        const auto& monitor = *each.data;
        found.push_back({monitor.name,
                         {monitor.x, monitor.y, monitor.width, monitor.height},
                         monitor.primary != 0});
      }
      // Exactly one is the main display, also where the user chose none.
      if (!found.empty() && std::ranges::none_of(found, &Monitor::primary))
        found.front().primary = true;
    } else {
      const XcbPtr<xcb_get_geometry_reply_t> root(xcb_get_geometry_reply(
          use_.connection, xcb_get_geometry(use_.connection, use_.root), nullptr));
      if (!root) return std::nullopt;
      found.push_back({use_.root, {0, 0, root->width, root->height}, true});
    }
    return found;
  }

  /// Draws the pointer into an image of `area` of the root window.
  void drawPointer(GrabbedImage& grabbed, const PixelRect& area) {
    if (!hasPointerImage_) return;
    const XcbPtr<xcb_xfixes_get_cursor_image_reply_t> pointer(xcb_xfixes_get_cursor_image_reply(
        use_.connection, xcb_xfixes_get_cursor_image(use_.connection), nullptr));
    if (!pointer) return;
    const PixelRect image{pointer->x - pointer->xhot - area.x, pointer->y - pointer->yhot - area.y,
                          pointer->width, pointer->height};
    const PixelRect shown = intersection(image, {0, 0, area.width, area.height});
    const std::uint32_t* from = xcb_xfixes_get_cursor_image_cursor_image(pointer.get());
    for (int y = shown.y; y < shown.y + shown.height; ++y) {
      for (int x = shown.x; x < shown.x + shown.width; ++x) {
        const std::uint32_t top = from[(y - image.y) * image.width + (x - image.x)];
        std::uint32_t& pixel = grabbed.pixels[y * grabbed.image.stride + x];
        const std::uint32_t alpha = top >> 24;
        std::uint32_t mixed = 0xFF000000;
        for (const int shift : {16, 8, 0})
          mixed |= over(top >> shift & 255, alpha, pixel >> shift & 255) << shift;
        pixel = mixed;
      }
    }
  }

 private:
  void learn() {
    xcb_connection_t* connection = use_.connection;
    known_ = x11_.generation();
    use_.root = x11_.root();
    use_.compositorSelection = x11_.atom("_NET_WM_CM_S0");
    use_.managedState = x11_.atom("WM_STATE");
    use_.shadowExtents = x11_.atom("_GTK_FRAME_EXTENTS");
    grabber_.emplace(connection);
    use_.grabber = &*grabber_;
    hasMonitors_ = false;
    if (isPresent(connection, xcb_randr_id)) {
      const XcbPtr<xcb_randr_query_version_reply_t> version(xcb_randr_query_version_reply(
          connection, xcb_randr_query_version(connection, 1, 5), nullptr));
      hasMonitors_ =
          version && std::pair(version->major_version, version->minor_version) >= std::pair(1U, 5U);
    }
    // These three refuse every other request of a client that has not named its version.
    hasPointerImage_ = false;
    if (isPresent(connection, xcb_xfixes_id)) {
      const XcbPtr<xcb_xfixes_query_version_reply_t> version(xcb_xfixes_query_version_reply(
          connection, xcb_xfixes_query_version(connection, 2, 0), nullptr));
      hasPointerImage_ = version != nullptr;
    }
    use_.canRedirect = false;
    if (hasPointerImage_ && isPresent(connection, xcb_composite_id) &&
        isPresent(connection, xcb_damage_id)) {
      const XcbPtr<xcb_composite_query_version_reply_t> composite(xcb_composite_query_version_reply(
          connection, xcb_composite_query_version(connection, 0, 2), nullptr));
      const XcbPtr<xcb_damage_query_version_reply_t> damage(xcb_damage_query_version_reply(
          connection, xcb_damage_query_version(connection, 1, 1), nullptr));
      use_.canRedirect =
          damage && composite && (composite->major_version > 0 || composite->minor_version >= 2);
    }
  }

  X11Connection x11_;
  std::optional<PixelGrabber> grabber_;
  CaptureConnection use_;
  unsigned known_ = 0;
  bool hasMonitors_ = false;
  bool hasPointerImage_ = false;
  std::optional<X11Watch> watch_;
};

/// A session that is one thread's until this ends.
class X11ScreenSource::Borrowed {
 public:
  explicit Borrowed(X11ScreenSource& owner) : owner_(owner), session_(owner.sessions_.take()) {
    if (!session_) session_ = std::make_unique<Session>();
  }
  Borrowed(const Borrowed&) = delete;
  Borrowed& operator=(const Borrowed&) = delete;
  ~Borrowed() {
    session_->end();
    owner_.sessions_.giveBack(std::move(session_));
  }

  Session* operator->() { return session_.get(); }

 private:
  X11ScreenSource& owner_;
  std::unique_ptr<Session> session_;
};

X11ScreenSource::X11ScreenSource(std::chrono::milliseconds keepFor) : sessions_(keepFor) {}

X11ScreenSource::~X11ScreenSource() = default;

ScreenSource::Result<std::vector<ScreenDisplay>> X11ScreenSource::displays() {
  Borrowed session(*this);
  if (!session->connect()) return fail(ScreenSourceError::failed);
  const auto monitors = session->monitors();
  if (!monitors) return fail(ScreenSourceError::failed);
  std::vector<ScreenDisplay> result;
  for (const Monitor& monitor : *monitors)
    result.push_back({.id = monitor.id,
                      .bounds = toPoints(monitor.rect),
                      .pixelsWide = monitor.rect.width,
                      .pixelsHigh = monitor.rect.height,
                      .primary = monitor.primary});
  return result;
}

ScreenSource::Result<BackingScreens> X11ScreenSource::backingScreens() {
  const auto found = displays();
  if (!found) return fail(found.error());
  BackingScreens screens;
  for (const ScreenDisplay& display : *found) screens.all.push_back({display.bounds, 1.0});
  if (!found->empty()) screens.mainScale = 1.0;
  return screens;
}

ScreenSource::Result<Rect> X11ScreenSource::windowFrame(std::uint32_t window) {
  Borrowed session(*this);
  const CaptureConnection* x11 = session->connect();
  if (!x11) return fail(ScreenSourceError::failed);
  if (const auto found = findViewableWindow(*x11, window)) return toPoints(found->frame);
  const bool answers = xcb_connection_has_error(x11->connection) == 0;
  return fail(answers ? ScreenSourceError::windowGone : ScreenSourceError::failed);
}

ScreenSource::Result<Image> X11ScreenSource::captureDisplay(std::uint32_t display, const Rect& area,
                                                            PixelSize output) {
  Borrowed session(*this);
  const CaptureConnection* x11 = session->connect();
  if (!x11) return fail(ScreenSourceError::failed);
  const auto monitors = session->monitors();
  if (!monitors) return fail(ScreenSourceError::failed);
  const auto monitor = std::ranges::find(*monitors, display, &Monitor::id);
  if (monitor == monitors->end()) return fail(ScreenSourceError::displayGone);

  // A region between pixels moves to the nearest ones, and back inside at the far edges.
  const auto begin = [](double wanted, int length, int available) {
    return std::clamp(static_cast<int>(std::lround(wanted)), 0, std::max(available - length, 0));
  };
  const PixelRect& bounds = monitor->rect;
  const PixelRect grabbed{bounds.x + begin(area.x, output.width, bounds.width),
                          bounds.y + begin(area.y, output.height, bounds.height),
                          std::min(output.width, bounds.width),
                          std::min(output.height, bounds.height)};
  const auto format = pixelFormatOf(xcb_get_setup(x11->connection), session->rootVisual());
  if (!format) return fail(ScreenSourceError::failed);
  auto image = x11->grabber->grab(x11->root, grabbed, *format);
  if (!image) return fail(ScreenSourceError::failed);
  session->drawPointer(*image, grabbed);
  return std::move(image->image);
}

ScreenSource::Result<Image> X11ScreenSource::captureWindow(std::uint32_t window,
                                                           PixelSize /*output*/) {
  Borrowed session(*this);
  const CaptureConnection* x11 = session->connect();
  if (!x11 || !x11->canRedirect) return fail(ScreenSourceError::failed);
  return captureWindowPixels(*x11, window);
}

}  // namespace vesko
