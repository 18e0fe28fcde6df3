#include "platform/linux/display_report.h"

#include <xcb/randr.h>

#include <algorithm>

#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_watch.h"

namespace vesko {
namespace {

constexpr std::uint32_t maxPropertyWords = 4096;

using Property = XcbPtr<xcb_get_property_reply_t>;

/// Null unless it is a list of values of `format` bits.
Property property(X11Connection& x, xcb_window_t window, std::string_view name, int format) {
  const auto cookie =
      xcb_get_property(x.current(), 0, window, x.atom(name), XCB_ATOM_ANY, 0, maxPropertyWords);
  Property reply(xcb_get_property_reply(x.current(), cookie, nullptr));
  return reply && reply->format == format ? std::move(reply) : nullptr;
}

std::vector<std::uint32_t> numbers(X11Connection& x, xcb_window_t window, std::string_view name) {
  const Property reply = property(x, window, name, 32);
  if (!reply) return {};
  const auto* first = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
  return {first, first + reply->value_len};
}

/// One that runs has a window of its own, which names itself: what an ended one left does not.
std::optional<DisplayReport::WindowManager> windowManager(
    X11Connection& x, const std::vector<std::string_view>& hints) {
  constexpr std::string_view checkName = "_NET_SUPPORTING_WM_CHECK";
  const auto window = numbers(x, x.root(), checkName);
  if (window.empty() || numbers(x, window.front(), checkName) != window) return std::nullopt;
  DisplayReport::WindowManager manager;
  if (const Property name = property(x, window.front(), "_NET_WM_NAME", 8))
    manager.name.assign(static_cast<const char*>(xcb_get_property_value(name.get())),
                        name->value_len);
  const auto supported = numbers(x, x.root(), "_NET_SUPPORTED");
  for (const std::string_view hint : hints) {
    if (std::ranges::find(supported, x.atom(hint)) == supported.end())
      manager.missingHints.emplace_back(hint);
  }
  return manager;
}

bool offers(xcb_connection_t* c, std::string_view extension) {
  const auto cookie =
      xcb_query_extension(c, static_cast<std::uint16_t>(extension.size()), extension.data());
  const XcbPtr<xcb_query_extension_reply_t> reply(xcb_query_extension_reply(c, cookie, nullptr));
  return reply && reply->present;
}

std::vector<DisplayReport::Screen> screens(X11Connection& x) {
  std::vector<DisplayReport::Screen> result;
  const auto* extension = xcb_get_extension_data(x.current(), &xcb_randr_id);
  if (extension && extension->present) {
    const XcbPtr<xcb_randr_get_monitors_reply_t> reply(xcb_randr_get_monitors_reply(
        x.current(), xcb_randr_get_monitors(x.current(), x.root(), 1), nullptr));
    for (auto it = reply ? xcb_randr_get_monitors_monitors_iterator(reply.get())
                         : xcb_randr_monitor_info_iterator_t{};
         it.rem > 0; xcb_randr_monitor_info_next(&it))
      result.push_back({it.data->width, it.data->height});
  }
  if (result.empty()) result.push_back({x.screen()->width_in_pixels, x.screen()->height_in_pixels});
  return result;
}

}  // namespace

std::optional<DisplayReport> reportDisplay(const std::vector<std::string_view>& extensions,
                                           const std::vector<std::string_view>& hints) {
  X11Connection x;
  xcb_connection_t* const connection = x.get();
  if (!connection || !x.screen()) return std::nullopt;
  const X11Watch watch(connection);
  DisplayReport report;
  for (const std::string_view extension : extensions) {
    if (!offers(connection, extension)) report.missingExtensions.emplace_back(extension);
  }
  report.screens = screens(x);
  report.windowManager = windowManager(x, hints);
  if (xcb_connection_has_error(connection) != 0) return std::nullopt;
  return report;
}

}  // namespace vesko
