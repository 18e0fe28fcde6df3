#include "platform/linux/atspi_windows.h"

#include <poll.h>

#include <algorithm>
#include <array>

namespace vesko {
namespace {

constexpr std::uint32_t maxTitleWords = 1024;
constexpr std::uint32_t maxWindows = 4096;
constexpr std::chrono::milliseconds activationTime{1000};
// The source of an EWMH request: a pager, acting for the user.
constexpr std::uint32_t fromPager = 2;

std::vector<std::uint32_t> words(const xcb_get_property_reply_t* reply) {
  if (!reply || reply->format != 32) return {};
  const auto* first = static_cast<const std::uint32_t*>(xcb_get_property_value(reply));
  return {first, first + xcb_get_property_value_length(reply) / 4};
}

}  // namespace

xcb_get_property_cookie_t AtspiWindows::ask(xcb_window_t window, std::string_view property,
                                            xcb_atom_t type, std::uint32_t length) {
  return xcb_get_property(x11_.current(), 0, window, x11_.atom(property), type, 0, length);
}

XcbPtr<xcb_get_property_reply_t> AtspiWindows::answer(xcb_get_property_cookie_t cookie) {
  return XcbPtr<xcb_get_property_reply_t>(xcb_get_property_reply(x11_.current(), cookie, nullptr));
}

std::vector<xcb_window_t> AtspiWindows::managed() {
  return words(
      answer(ask(x11_.root(), "_NET_CLIENT_LIST_STACKING", XCB_ATOM_WINDOW, maxWindows)).get());
}

std::vector<xcb_window_t> AtspiWindows::shownPopups() {
  xcb_connection_t* connection = x11_.current();
  const XcbPtr<xcb_query_tree_reply_t> tree(
      xcb_query_tree_reply(connection, xcb_query_tree(connection, x11_.root()), nullptr));
  if (!tree) return {};
  const xcb_window_t* all = xcb_query_tree_children(tree.get());
  const auto count = static_cast<std::size_t>(xcb_query_tree_children_length(tree.get()));
  std::vector<xcb_get_window_attributes_cookie_t> cookies(count);
  for (std::size_t i = 0; i < count; ++i)
    cookies[i] = xcb_get_window_attributes(connection, all[i]);
  std::vector<xcb_window_t> popups;
  for (std::size_t i = 0; i < count; ++i) {
    const XcbPtr<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(connection, cookies[i], nullptr));
    if (attributes && attributes->override_redirect &&
        attributes->map_state == XCB_MAP_STATE_VIEWABLE)
      popups.push_back(all[i]);
  }
  return popups;
}

std::vector<AtspiWindow> AtspiWindows::describe(const std::vector<xcb_window_t>& windows) {
  struct Asked {
    xcb_get_geometry_cookie_t geometry;
    xcb_translate_coordinates_cookie_t origin;
    xcb_get_property_cookie_t extents, title;
  };
  xcb_connection_t* connection = x11_.current();
  std::vector<Asked> asked;
  for (const xcb_window_t window : windows) {
    asked.push_back({xcb_get_geometry(connection, window),
                     xcb_translate_coordinates(connection, window, x11_.root(), 0, 0),
                     ask(window, "_GTK_FRAME_EXTENTS", XCB_ATOM_CARDINAL, 4),
                     ask(window, "_NET_WM_NAME", x11_.atom("UTF8_STRING"), maxTitleWords)});
  }
  std::vector<AtspiWindow> described;
  for (std::size_t i = 0; i < windows.size(); ++i) {
    const XcbPtr<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(connection, asked[i].geometry, nullptr));
    const XcbPtr<xcb_translate_coordinates_reply_t> origin(
        xcb_translate_coordinates_reply(connection, asked[i].origin, nullptr));
    const auto extents = words(answer(asked[i].extents).get());
    const auto title = answer(asked[i].title);
    if (!geometry || !origin) continue;
    AtspiWindow window{.id = windows[i],
                       .title = {},
                       .rect = {double(origin->dst_x), double(origin->dst_y),
                                double(geometry->width), double(geometry->height)}};
    if (extents.size() == 4) {
      window.left = extents[0];
      window.right = extents[1];
      window.top = extents[2];
      window.bottom = extents[3];
    }
    if (title)
      window.title.assign(static_cast<const char*>(xcb_get_property_value(title.get())),
                          static_cast<std::size_t>(xcb_get_property_value_length(title.get())));
    described.push_back(std::move(window));
  }
  return described;
}

AtspiWindows::OfProcess AtspiWindows::windowsOf(pid_t process) {
  if (!x11_.get()) return {};
  const auto all = managed();
  std::vector<xcb_get_property_cookie_t> cookies;
  for (const xcb_window_t window : all)
    cookies.push_back(ask(window, "_NET_WM_PID", XCB_ATOM_CARDINAL, 1));
  std::vector<xcb_window_t> own;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto owner = words(answer(cookies[i]).get());
    if (!owner.empty() && static_cast<pid_t>(owner[0]) == process) own.push_back(all[i]);
  }
  // Popups carry no process, but the same client's number in their ids.
  const std::uint32_t idMask = xcb_get_setup(x11_.current())->resource_id_mask;
  auto popups = shownPopups();
  std::erase_if(popups, [&](xcb_window_t popup) {
    return std::ranges::none_of(
        own, [&](xcb_window_t window) { return (window & ~idMask) == (popup & ~idMask); });
  });
  return {describe(own), describe(popups)};
}

std::optional<xcb_window_t> AtspiWindows::active() {
  const auto found =
      words(answer(ask(x11_.root(), "_NET_ACTIVE_WINDOW", XCB_ATOM_WINDOW, 1)).get());
  if (found.empty()) return std::nullopt;
  return found[0];
}

bool AtspiWindows::activate(xcb_window_t window, std::chrono::steady_clock::time_point deadline) {
  xcb_connection_t* connection = x11_.get();
  if (!connection) return false;
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(connection, x11_.root(), XCB_CW_EVENT_MASK, &events);
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window;
  message.type = x11_.atom("_NET_ACTIVE_WINDOW");
  message.data.data32[0] = fromPager;
  message.data.data32[1] = XCB_CURRENT_TIME;
  xcb_send_event(connection, 0, x11_.root(),
                 XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                 reinterpret_cast<const char*>(&message));
  xcb_flush(connection);
  deadline = std::min(deadline, std::chrono::steady_clock::now() + activationTime);
  bool done = active() == window;
  // The window manager tells by changing a property of the root.
  while (!done && nextEvent(connection, deadline)) done = active() == window;
  const std::uint32_t none = 0;
  xcb_change_window_attributes(connection, x11_.root(), XCB_CW_EVENT_MASK, &none);
  return done;
}

Point contentOrigin(const AtspiWindow& window, double width, double height) {
  Point origin{window.rect.x, window.rect.y};
  if (window.left > 0 || window.right > 0 || window.top > 0 || window.bottom > 0) {
    origin.x += window.left;
    origin.y += window.top;
  } else {
    // A border that the toolkit draws where it has no shadows.
    origin.x += std::max((window.rect.w - width) / 2, 0.0);
    origin.y += std::max((window.rect.h - height) / 2, 0.0);
  }
  return origin;
}

}  // namespace vesko
