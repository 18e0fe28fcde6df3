#include "platform/linux/x11_window_capture.h"

#include <xcb/composite.h>
#include <xcb/damage.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "platform/linux/x11_connection.h"

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// How long an application may take to begin painting what was hidden, to pause between two strokes
// and to finish.
constexpr milliseconds firstStroke{200};
constexpr milliseconds betweenStrokes{40};
constexpr milliseconds lastStroke{500};

/// The window's own pixmap, for as long as this lives.
class RedirectedWindow {
 public:
  RedirectedWindow(xcb_connection_t* connection, xcb_window_t window)
      : connection_(connection),
        window_(window),
        damage_(xcb_generate_id(connection)),
        pixmap_(xcb_generate_id(connection)) {
    xcb_damage_create(connection, damage_, window, XCB_DAMAGE_REPORT_LEVEL_RAW_RECTANGLES);
    redirected_ =
        xcb_composite_redirect_window(connection, window, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
    const auto named = xcb_composite_name_window_pixmap_checked(connection, window, pixmap_);
    const XcbPtr<xcb_generic_error_t> error(xcb_request_check(connection, named));
    valid_ = !error && xcb_connection_has_error(connection) == 0;
  }
  RedirectedWindow(const RedirectedWindow&) = delete;
  RedirectedWindow& operator=(const RedirectedWindow&) = delete;
  ~RedirectedWindow() {
    if (valid_) xcb_free_pixmap(connection_, pixmap_);
    xcb_composite_unredirect_window(connection_, window_, XCB_COMPOSITE_REDIRECT_AUTOMATIC);
    xcb_damage_destroy(connection_, damage_);
    xcb_flush(connection_);
  }

  bool valid() const { return valid_; }
  xcb_pixmap_t pixmap() const { return pixmap_; }

  /// Waits until the application has painted all of `hidden`, which is in the window's own
  /// coordinates, or seems to have finished.
  void awaitPainting(PixelRegion hidden) {
    const auto* extension = xcb_get_extension_data(connection_, &xcb_damage_id);
    const int damageEvent = extension->first_event + XCB_DAMAGE_NOTIFY;
    const auto begin = Clock::now();
    auto quiet = begin + firstStroke;
    while (!hidden.empty()) {
      const auto event = nextEvent(connection_, std::min(quiet, begin + lastStroke));
      if (!event) return;
      if ((event->response_type & 0x7F) != damageEvent) continue;
      // What the redirection itself painted is the window's background, not its content.
      if (event->full_sequence == redirected_.sequence) continue;
      const auto& notify = reinterpret_cast<const xcb_damage_notify_event_t&>(*event);
      if (notify.damage != damage_) continue;
      hidden.subtract({notify.area.x, notify.area.y, notify.area.width, notify.area.height});
      quiet = Clock::now() + betweenStrokes;
    }
  }

 private:
  xcb_connection_t* connection_;
  xcb_window_t window_;
  xcb_damage_damage_t damage_;
  xcb_pixmap_t pixmap_;
  xcb_void_cookie_t redirected_{};
  bool valid_ = false;
};

/// Who draws windows to the screen from their own pixmaps, so that all of them are whole.
bool hasCompositor(const CaptureConnection& x11) {
  const XcbPtr<xcb_get_selection_owner_reply_t> owner(xcb_get_selection_owner_reply(
      x11.connection, xcb_get_selection_owner(x11.connection, x11.compositorSelection), nullptr));
  return owner && owner->owner != XCB_WINDOW_NONE;
}

PixelRect outerRect(const xcb_get_geometry_reply_t& geometry) {
  return {geometry.x, geometry.y, geometry.width + 2 * geometry.border_width,
          geometry.height + 2 * geometry.border_width};
}

/// The viewable windows above `child` among its siblings, in their parent's coordinates.
std::vector<PixelRect> coveringSiblings(xcb_connection_t* connection,
                                        const xcb_query_tree_reply_t& parent, xcb_window_t child) {
  const xcb_window_t* children = xcb_query_tree_children(&parent);
  const xcb_window_t* end = children + xcb_query_tree_children_length(&parent);
  const xcb_window_t* above = std::find(children, end, child);
  if (above != end) ++above;
  std::vector<std::pair<xcb_get_window_attributes_cookie_t, xcb_get_geometry_cookie_t>> pending;
  for (; above != end; ++above)
    pending.emplace_back(xcb_get_window_attributes(connection, *above),
                         xcb_get_geometry(connection, *above));
  std::vector<PixelRect> covering;
  for (const auto& [attributesCookie, geometryCookie] : pending) {
    const XcbPtr<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(connection, attributesCookie, nullptr));
    const XcbPtr<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(connection, geometryCookie, nullptr));
    if (attributes && geometry && attributes->map_state == XCB_MAP_STATE_VIEWABLE &&
        attributes->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT)
      covering.push_back(outerRect(*geometry));
  }
  return covering;
}

/// The part of the window that is not on the screen, in its own coordinates. A shaped window above
/// counts as its bounding rectangle: too much hidden costs a wait, too little a wrong picture.
PixelRegion hiddenPart(const CaptureConnection& x11, xcb_window_t window, const PixelRect& frame) {
  if (hasCompositor(x11)) return {};
  xcb_connection_t* connection = x11.connection;
  const PixelRect whole{0, 0, frame.width, frame.height};
  PixelRegion visible(whole);
  // Where the window's own origin lies in its ancestor's coordinates.
  int x = 0;
  int y = 0;
  xcb_window_t child = window;
  for (;;) {
    const auto childCookie = xcb_get_geometry(connection, child);
    const XcbPtr<xcb_query_tree_reply_t> childTree(
        xcb_query_tree_reply(connection, xcb_query_tree(connection, child), nullptr));
    const XcbPtr<xcb_get_geometry_reply_t> childGeometry(
        xcb_get_geometry_reply(connection, childCookie, nullptr));
    if (!childTree || !childGeometry || childTree->parent == XCB_WINDOW_NONE) break;
    const xcb_window_t parent = childTree->parent;
    const auto parentCookie = xcb_get_geometry(connection, parent);
    const XcbPtr<xcb_query_tree_reply_t> parentTree(
        xcb_query_tree_reply(connection, xcb_query_tree(connection, parent), nullptr));
    const XcbPtr<xcb_get_geometry_reply_t> parentGeometry(
        xcb_get_geometry_reply(connection, parentCookie, nullptr));
    if (!parentTree || !parentGeometry) break;
    x += childGeometry->x + childGeometry->border_width;
    y += childGeometry->y + childGeometry->border_width;
    for (const PixelRect& covering : coveringSiblings(connection, *parentTree, child))
      visible.subtract({covering.x - x, covering.y - y, covering.width, covering.height});
    visible.intersect({-x, -y, parentGeometry->width, parentGeometry->height});
    child = parent;
  }
  PixelRegion hidden(whole);
  hidden.subtract(visible);
  return hidden;
}

std::optional<ViewableWindow> viewable(const CaptureConnection& x11, xcb_window_t window) {
  if (window == x11.root) return std::nullopt;
  xcb_connection_t* connection = x11.connection;
  const auto attributesCookie = xcb_get_window_attributes(connection, window);
  const auto geometryCookie = xcb_get_geometry(connection, window);
  const auto originCookie = xcb_translate_coordinates(connection, window, x11.root, 0, 0);
  const XcbPtr<xcb_get_window_attributes_reply_t> attributes(
      xcb_get_window_attributes_reply(connection, attributesCookie, nullptr));
  const XcbPtr<xcb_get_geometry_reply_t> geometry(
      xcb_get_geometry_reply(connection, geometryCookie, nullptr));
  const XcbPtr<xcb_translate_coordinates_reply_t> origin(
      xcb_translate_coordinates_reply(connection, originCookie, nullptr));
  if (!attributes || !geometry || !origin || attributes->map_state != XCB_MAP_STATE_VIEWABLE ||
      attributes->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT)
    return std::nullopt;
  const int border = geometry->border_width;
  return ViewableWindow{.frame = {origin->dst_x, origin->dst_y, geometry->width, geometry->height},
                        .pixels = window,
                        .outside = {origin->dst_x - border, origin->dst_y - border,
                                    geometry->width + 2 * border, geometry->height + 2 * border},
                        .border = border,
                        .visual = attributes->visual};
}

/// The window's ancestor below the root window.
xcb_window_t topLevelOf(const CaptureConnection& x11, xcb_window_t window) {
  for (;;) {
    const XcbPtr<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(x11.connection, xcb_query_tree(x11.connection, window), nullptr));
    if (!tree || tree->parent == x11.root || tree->parent == XCB_WINDOW_NONE) return window;
    window = tree->parent;
  }
}

std::vector<int> numbersOf(const CaptureConnection& x11, xcb_window_t window, xcb_atom_t name) {
  const XcbPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(
      x11.connection,
      xcb_get_property(x11.connection, 0, window, name, XCB_GET_PROPERTY_TYPE_ANY, 0, 4), nullptr));
  if (!reply || reply->format != 32) return {};
  const auto* values = static_cast<const std::int32_t*>(xcb_get_property_value(reply.get()));
  return {values, values + reply->value_len};
}

}  // namespace

PixelRect intersection(const PixelRect& a, const PixelRect& b) {
  const int left = std::max(a.x, b.x);
  const int top = std::max(a.y, b.y);
  return {left, top, std::min(a.x + a.width, b.x + b.width) - left,
          std::min(a.y + a.height, b.y + b.height) - top};
}

void PixelRegion::add(const PixelRect& rect) {
  if (rect.width > 0 && rect.height > 0) rects_.push_back(rect);
}

void PixelRegion::subtract(const PixelRect& rect) {
  for (const PixelRect& old : std::exchange(rects_, {})) {
    const PixelRect cut = intersection(old, rect);
    if (cut.width <= 0 || cut.height <= 0) {
      add(old);
      continue;
    }
    const int oldRight = old.x + old.width;
    const int cutRight = cut.x + cut.width;
    const int oldBottom = old.y + old.height;
    const int cutBottom = cut.y + cut.height;
    add({old.x, old.y, old.width, cut.y - old.y});
    add({old.x, cut.y, cut.x - old.x, cut.height});
    add({cutRight, cut.y, oldRight - cutRight, cut.height});
    add({old.x, cutBottom, old.width, oldBottom - cutBottom});
  }
}

void PixelRegion::subtract(const PixelRegion& region) {
  for (const PixelRect& rect : region.rects_) subtract(rect);
}

void PixelRegion::intersect(const PixelRect& rect) {
  for (const PixelRect& old : std::exchange(rects_, {})) add(intersection(old, rect));
}

std::optional<ViewableWindow> findViewableWindow(const CaptureConnection& x11,
                                                 xcb_window_t window) {
  const auto own = viewable(x11, window);
  if (!own) return std::nullopt;
  if (numbersOf(x11, window, x11.managedState).empty()) return own;
  const auto shadows = numbersOf(x11, window, x11.shadowExtents);
  auto decorated = viewable(x11, topLevelOf(x11, window));
  if (!decorated) return std::nullopt;
  PixelRect& frame = decorated->frame = decorated->outside;
  if (shadows.size() == 4) {
    const PixelRect inner{frame.x + shadows[0], frame.y + shadows[2],
                          frame.width - shadows[0] - shadows[1],
                          frame.height - shadows[2] - shadows[3]};
    // Extents are what the client says they are.
    if (inner.width > 0 && inner.height > 0 && inner == intersection(inner, frame)) frame = inner;
  }
  return decorated;
}

std::expected<Image, ScreenSourceError> captureWindowPixels(const CaptureConnection& x11,
                                                            xcb_window_t window) {
  xcb_connection_t* connection = x11.connection;
  const auto found = findViewableWindow(x11, window);
  if (xcb_connection_has_error(connection) != 0) return std::unexpected(ScreenSourceError::failed);
  if (!found) return std::unexpected(ScreenSourceError::windowGone);
  const auto format = pixelFormatOf(xcb_get_setup(connection), found->visual);
  if (!format) return std::unexpected(ScreenSourceError::failed);

  const int border = found->border;
  const PixelRect inside{0, 0, found->outside.width - 2 * border,
                         found->outside.height - 2 * border};
  PixelRegion hidden = hiddenPart(x11, found->pixels, inside);
  RedirectedWindow redirected(connection, found->pixels);
  std::optional<GrabbedImage> grabbed;
  if (redirected.valid()) {
    redirected.awaitPainting(std::move(hidden));
    // The pixmap and not the window says how large it is: that may just have been resized.
    const XcbPtr<xcb_get_geometry_reply_t> size(xcb_get_geometry_reply(
        connection, xcb_get_geometry(connection, redirected.pixmap()), nullptr));
    // The frame's far edges follow a window that has just been resized.
    const PixelRect& frame = found->frame;
    const PixelRect& outside = found->outside;
    const int x = frame.x - outside.x;
    const int y = frame.y - outside.y;
    const int width = size ? size->width - (outside.width - frame.width) : 0;
    const int height = size ? size->height - (outside.height - frame.height) : 0;
    if (width > 0 && height > 0)
      grabbed = x11.grabber->grab(redirected.pixmap(), {x, y, width, height}, *format);
  }
  if (grabbed) return std::move(grabbed->image);
  // The usual reason: it went away, or was minimised, since it was looked up.
  const bool gone = !findViewableWindow(x11, window) && xcb_connection_has_error(connection) == 0;
  return std::unexpected(gone ? ScreenSourceError::windowGone : ScreenSourceError::failed);
}

}  // namespace vesko
