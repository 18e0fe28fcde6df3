#include "platform/linux/x11_windows.h"

#include <xcb/randr.h>
#include <xcb/res.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <unordered_map>

#include "base/utf8.h"

namespace vesko {
namespace {

constexpr std::uint32_t maxTextWords = 1024;
constexpr std::uint32_t maxListWords = 64;
constexpr std::size_t windowsAtOnce = 100;

using PropertyReply = XcbPtr<xcb_get_property_reply_t>;

std::string_view bytesOf(const PropertyReply& reply) {
  if (!reply || reply->format != 8) return {};
  return {static_cast<const char*>(xcb_get_property_value(reply.get())),
          static_cast<std::size_t>(xcb_get_property_value_length(reply.get()))};
}

std::span<const std::uint32_t> cardinalsOf(const PropertyReply& reply) {
  if (!reply || reply->format != 32) return {};
  return {static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get())),
          static_cast<std::size_t>(xcb_get_property_value_length(reply.get())) / 4};
}

/// Latin-1, the encoding of old text properties.
std::string fromLatin1(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) appendUtf8(text, static_cast<unsigned char>(c));
  return text;
}

/// A cut at the limit may have split a character.
std::string_view withoutSplitCharacter(std::string_view text) {
  for (int cut = 0; cut < 3 && !text.empty() && !isValidUtf8(text); ++cut) text.remove_suffix(1);
  return text;
}

std::string textOf(const PropertyReply& reply) {
  const std::string_view bytes = bytesOf(reply);
  const std::string_view whole = withoutSplitCharacter(bytes);
  return isValidUtf8(whole) ? std::string(whole) : fromLatin1(bytes);
}

/// Everything asked about one window; the answers come while the next windows are asked about.
struct Questions {
  xcb_get_window_attributes_cookie_t attributes;
  xcb_get_geometry_cookie_t geometry;
  xcb_translate_coordinates_cookie_t origin;
  xcb_get_property_cookie_t netName, name, state, icccmState, type, transient, wmClass, protocols,
      netExtents, gtkExtents, gtkId, pid;
};

Questions ask(X11Session& x11, xcb_window_t window) {
  xcb_connection_t* const c = x11.connection();
  const auto property = [&](xcb_atom_t name, std::uint32_t words) {
    return xcb_get_property(c, 0, window, name, XCB_GET_PROPERTY_TYPE_ANY, 0, words);
  };
  return {
      .attributes = xcb_get_window_attributes(c, window),
      .geometry = xcb_get_geometry(c, window),
      .origin = xcb_translate_coordinates(c, window, x11.root(), 0, 0),
      .netName = property(x11.atom(XAtom::netWmName), maxTextWords),
      .name = property(XCB_ATOM_WM_NAME, maxTextWords),
      .state = property(x11.atom(XAtom::netWmState), maxListWords),
      .icccmState = property(x11.atom(XAtom::wmState), 2),
      .type = property(x11.atom(XAtom::netWmWindowType), maxListWords),
      .transient = property(XCB_ATOM_WM_TRANSIENT_FOR, 1),
      .wmClass = property(XCB_ATOM_WM_CLASS, maxListWords),
      .protocols = property(x11.atom(XAtom::wmProtocols), maxListWords),
      .netExtents = property(x11.atom(XAtom::netFrameExtents), 4),
      .gtkExtents = property(x11.atom(XAtom::gtkFrameExtents), 4),
      .gtkId = property(x11.atom(XAtom::gtkApplicationId), maxListWords),
      .pid = property(x11.atom(XAtom::netWmPid), 1),
  };
}

void takeStates(const X11Session& x11, std::span<const std::uint32_t> states, X11Window& window) {
  const auto has = [&](XAtom name) {
    return std::ranges::find(states, x11.atom(name)) != states.end();
  };
  window.hidden = has(XAtom::netWmStateHidden);
  window.fullScreen = has(XAtom::netWmStateFullScreen);
  window.maximizedHorizontally = has(XAtom::netWmStateMaximizedHorizontally);
  window.maximizedVertically = has(XAtom::netWmStateMaximizedVertically);
  window.modal = has(XAtom::netWmStateModal);
}

/// The first type that is known counts.
bool isOrdinary(const X11Session& x11, std::span<const std::uint32_t> types) {
  constexpr std::array others{XAtom::netWmWindowTypeCombo,        XAtom::netWmWindowTypeDesktop,
                              XAtom::netWmWindowTypeDnd,          XAtom::netWmWindowTypeDock,
                              XAtom::netWmWindowTypeDropdownMenu, XAtom::netWmWindowTypeMenu,
                              XAtom::netWmWindowTypeNotification, XAtom::netWmWindowTypePopupMenu,
                              XAtom::netWmWindowTypeTooltip};
  return types.empty() || std::ranges::none_of(others, [&](XAtom other) {
           return x11.atom(other) == types.front();
         });
}

/// The manager's decorations lie outside the client; the shadows that a client draws inside it.
void takeExtents(std::span<const std::uint32_t> decorations, std::span<const std::uint32_t> shadows,
                 X11Window& window) {
  const auto extent = [](std::span<const std::uint32_t> sides, std::size_t side) {
    return sides.size() == 4 ? double(static_cast<std::int32_t>(sides[side])) : 0.0;
  };
  const auto sideOf = [&](std::size_t side) {
    return extent(decorations, side) - extent(shadows, side);
  };
  window.shadowLeft = extent(shadows, 0);
  window.shadowRight = extent(shadows, 1);
  window.shadowTop = extent(shadows, 2);
  window.shadowBottom = extent(shadows, 3);
  window.left = sideOf(0);
  window.right = sideOf(1);
  window.top = sideOf(2);
  window.bottom = sideOf(3);
  window.frame = {window.client.x - window.left, window.client.y - window.top,
                  window.client.w + window.left + window.right,
                  window.client.h + window.top + window.bottom};
}

std::optional<X11Window> answers(X11Session& x11, xcb_window_t id, const Questions& asked) {
  const auto attributes = x11.wait<xcb_get_window_attributes_reply_t>(asked.attributes);
  const auto geometry = x11.wait<xcb_get_geometry_reply_t>(asked.geometry);
  const auto origin = x11.wait<xcb_translate_coordinates_reply_t>(asked.origin);
  const auto property = [&x11](xcb_get_property_cookie_t cookie) {
    return x11.wait<xcb_get_property_reply_t>(cookie);
  };
  const auto netName = property(asked.netName);
  const auto name = property(asked.name);
  const auto state = property(asked.state);
  const auto icccmState = property(asked.icccmState);
  const auto type = property(asked.type);
  const auto transient = property(asked.transient);
  const auto wmClass = property(asked.wmClass);
  const auto protocols = property(asked.protocols);
  const auto netExtents = property(asked.netExtents);
  const auto gtkExtents = property(asked.gtkExtents);
  const auto gtkId = property(asked.gtkId);
  const auto pid = property(asked.pid);
  if (!attributes || !geometry || !origin) return std::nullopt;

  X11Window window{.id = id};
  if (netName && netName->type != XCB_ATOM_NONE)
    window.title = textOf(netName);
  else if (name && name->type != XCB_ATOM_NONE)
    window.title = textOf(name);
  window.client = {double(origin->dst_x), double(origin->dst_y), double(geometry->width),
                   double(geometry->height)};
  window.border = geometry->border_width;
  takeExtents(cardinalsOf(netExtents), cardinalsOf(gtkExtents), window);
  takeStates(x11, cardinalsOf(state), window);
  constexpr std::uint32_t iconic = 3;
  const auto icccm = cardinalsOf(icccmState);
  // Only managers that do not speak of _NET_WM_STATE leave a window without it.
  if (state && state->type == XCB_ATOM_NONE)
    window.hidden = !icccm.empty() && icccm.front() == iconic;
  window.ordinary = isOrdinary(x11, cardinalsOf(type));
  if (const auto owner = cardinalsOf(transient); !owner.empty())
    window.transientFor = owner.front();
  const std::string classes = textOf(wmClass);
  const auto gap = classes.find('\0');
  window.instance = classes.substr(0, gap);
  if (gap != std::string::npos) window.className = classes.c_str() + gap + 1;
  for (const std::uint32_t protocol : cardinalsOf(protocols)) {
    window.canDelete = window.canDelete || protocol == x11.atom(XAtom::wmDeleteWindow);
  }
  window.gtkApplicationId = textOf(gtkId);
  if (const auto value = cardinalsOf(pid); !value.empty())
    window.pid = static_cast<pid_t>(value.front());
  window.viewable = attributes->map_state == XCB_MAP_STATE_VIEWABLE;
  return window;
}

/// The processes at the other ends of the server's sockets. A window's own property says what its
/// application believes, which inside a sandbox is another number.
void takeServersPids(X11Session& x11, std::span<X11Window> windows) {
  xcb_connection_t* const c = x11.connection();
  const auto* extension = xcb_get_extension_data(c, &xcb_res_id);
  if (!extension || !extension->present || windows.empty()) return;
  std::vector<xcb_res_client_id_spec_t> specs;
  for (const X11Window& each : windows)
    specs.push_back({each.id, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID});
  const auto reply = x11.wait<xcb_res_query_client_ids_reply_t>(
      xcb_res_query_client_ids(c, static_cast<std::uint32_t>(specs.size()), specs.data()));
  if (!reply) return;
  // The answer names clients by the base of their resources.
  const std::uint32_t ownBits = xcb_get_setup(c)->resource_id_mask;
  std::unordered_map<std::uint32_t, pid_t> pids;
  for (auto ids = xcb_res_query_client_ids_ids_iterator(reply.get()); ids.rem > 0;
       xcb_res_client_id_value_next(&ids)) {
    if (xcb_res_client_id_value_value_length(ids.data) < 1) continue;
    pids.emplace(ids.data->spec.client & ~ownBits,
                 static_cast<pid_t>(*xcb_res_client_id_value_value(ids.data)));
  }
  for (X11Window& each : windows) {
    const auto found = pids.find(each.id & ~ownBits);
    if (found != pids.end() && found->second > 0) each.pid = found->second;
  }
}

std::vector<xcb_window_t> viewableOnRoot(X11Session& x11, bool popups) {
  xcb_connection_t* const c = x11.connection();
  const auto tree = x11.wait<xcb_query_tree_reply_t>(xcb_query_tree(c, x11.root()));
  if (!tree) return {};
  const std::span all(xcb_query_tree_children(tree.get()),
                      static_cast<std::size_t>(xcb_query_tree_children_length(tree.get())));
  std::vector<xcb_get_window_attributes_cookie_t> asked;
  for (const xcb_window_t each : all) asked.push_back(xcb_get_window_attributes(c, each));
  std::vector<xcb_window_t> found;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto reply = x11.wait<xcb_get_window_attributes_reply_t>(asked[i]);
    if (reply && reply->map_state == XCB_MAP_STATE_VIEWABLE &&
        (reply->override_redirect != 0) == popups && reply->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT)
      found.push_back(all[i]);
  }
  return found;
}

/// A manager updates its two lists one after the other: a window counts that is in either of them.
std::vector<xcb_window_t> rootList(X11Session& x11, XAtom ordered, XAtom other) {
  if (!hasWindowManager(x11)) return viewableOnRoot(x11, false);
  auto windows = readCardinals(x11, x11.root(), ordered);
  for (const xcb_window_t each : readCardinals(x11, x11.root(), other)) {
    if (std::ranges::find(windows, each) == windows.end()) windows.push_back(each);
  }
  if (windows.size() > maxWindows) windows.resize(maxWindows);
  return windows;
}

}  // namespace

std::optional<std::vector<std::uint32_t>> cardinalsIfAny(X11Session& x11, xcb_window_t window,
                                                         XAtom property) {
  const auto reply = x11.wait<xcb_get_property_reply_t>(xcb_get_property(
      x11.connection(), 0, window, x11.atom(property), XCB_GET_PROPERTY_TYPE_ANY, 0, maxWindows));
  if (!reply || reply->type == XCB_ATOM_NONE) return std::nullopt;
  const auto values = cardinalsOf(reply);
  return std::vector<std::uint32_t>(values.begin(), values.end());
}

std::vector<std::uint32_t> readCardinals(X11Session& x11, xcb_window_t window, XAtom property) {
  return cardinalsIfAny(x11, window, property).value_or(std::vector<std::uint32_t>{});
}

bool hasWindowManager(X11Session& x11) {
  // The property outlives a manager that crashed; the window that it names does not.
  const auto check = readCardinals(x11, x11.root(), XAtom::netSupportingWmCheck);
  return !check.empty() && readCardinals(x11, check.front(), XAtom::netSupportingWmCheck) == check;
}

std::vector<xcb_window_t> clientWindows(X11Session& x11) {
  return rootList(x11, XAtom::netClientList, XAtom::netClientListStacking);
}

std::vector<xcb_window_t> stackedWindows(X11Session& x11) {
  return rootList(x11, XAtom::netClientListStacking, XAtom::netClientList);
}

std::vector<xcb_window_t> popupWindows(X11Session& x11) {
  return viewableOnRoot(x11, true);
}

std::vector<X11Window> readWindows(X11Session& x11, std::span<const xcb_window_t> windows) {
  std::vector<X11Window> read;
  // In portions, so that neither side's buffer fills while the other waits.
  while (!windows.empty()) {
    const auto portion = windows.first(std::min(windows.size(), windowsAtOnce));
    windows = windows.subspan(portion.size());
    std::vector<Questions> asked;
    for (const xcb_window_t id : portion) asked.push_back(ask(x11, id));
    const std::size_t begin = read.size();
    for (std::size_t i = 0; i < portion.size(); ++i) {
      if (auto window = answers(x11, portion[i], asked[i])) read.push_back(std::move(*window));
    }
    takeServersPids(x11, std::span(read).subspan(begin));
    if (x11.broken()) break;
  }
  return read;
}

std::optional<X11Window> readWindow(X11Session& x11, xcb_window_t window) {
  if (window == XCB_WINDOW_NONE || window == x11.root()) return std::nullopt;
  auto read = readWindows(x11, std::span(&window, 1));
  return read.empty() ? std::nullopt : std::optional(std::move(read.front()));
}

xcb_window_t activeWindow(X11Session& x11) {
  if (hasWindowManager(x11)) {
    const auto active = readCardinals(x11, x11.root(), XAtom::netActiveWindow);
    return active.empty() ? XCB_WINDOW_NONE : active.front();
  }
  xcb_connection_t* const c = x11.connection();
  const auto focus = x11.wait<xcb_get_input_focus_reply_t>(xcb_get_input_focus(c));
  if (!focus || focus->focus <= XCB_INPUT_FOCUS_POINTER_ROOT) return XCB_WINDOW_NONE;
  xcb_window_t window = focus->focus;
  for (int depth = 0; depth < 64; ++depth) {
    const auto tree = x11.wait<xcb_query_tree_reply_t>(xcb_query_tree(c, window));
    if (!tree) break;
    if (tree->parent == x11.root()) return window;
    window = tree->parent;
  }
  return XCB_WINDOW_NONE;
}

std::vector<Rect> screenFrames(X11Session& x11) {
  xcb_connection_t* const c = x11.connection();
  std::vector<Rect> frames;
  const auto* randr = xcb_get_extension_data(c, &xcb_randr_id);
  if (randr && randr->present) {
    const auto monitors =
        x11.wait<xcb_randr_get_monitors_reply_t>(xcb_randr_get_monitors(c, x11.root(), 1));
    if (monitors) {
      for (auto each = xcb_randr_get_monitors_monitors_iterator(monitors.get()); each.rem > 0;
           xcb_randr_monitor_info_next(&each)) {
        const auto& monitor = *each.data;
        frames.push_back(
            {double(monitor.x), double(monitor.y), double(monitor.width), double(monitor.height)});
      }
      return frames;
    }
  }
  const auto root = x11.wait<xcb_get_geometry_reply_t>(xcb_get_geometry(c, x11.root()));
  if (root) frames.push_back({0, 0, double(root->width), double(root->height)});
  return frames;
}

}  // namespace vesko
