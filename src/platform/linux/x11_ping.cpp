#include "platform/linux/x11_ping.h"

#include <algorithm>
#include <span>

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;

enum class Pings { yes, no, gone };

Pings answersPings(X11Connection& x11, xcb_window_t window) {
  xcb_connection_t* const c = x11.current();
  const xcb_atom_t wmPing = x11.atom("_NET_WM_PING");
  xcb_generic_error_t* failure = nullptr;
  const auto cookie =
      xcb_get_property(c, 0, window, x11.atom("WM_PROTOCOLS"), XCB_ATOM_ATOM, 0, 64);
  const XcbPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(c, cookie, &failure));
  const XcbPtr<xcb_generic_error_t> error(failure);
  if (!reply) return Pings::gone;
  if (reply->format != 32) return Pings::no;
  const auto* atoms = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply.get()));
  const std::span protocols(atoms, reply->value_len);
  return std::ranges::find(protocols, wmPing) != protocols.end() ? Pings::yes : Pings::no;
}

void selectOnRoot(X11Connection& x11, std::uint32_t events) {
  xcb_change_window_attributes(x11.current(), x11.root(), XCB_CW_EVENT_MASK, &events);
}

}  // namespace

std::optional<xcb_window_t> focusedClient(X11Connection& x11) {
  xcb_connection_t* const c = x11.current();
  const XcbPtr<xcb_get_input_focus_reply_t> focus(
      xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
  if (!focus || focus->focus == XCB_NONE || focus->focus == XCB_INPUT_FOCUS_POINTER_ROOT)
    return std::nullopt;
  xcb_window_t window = focus->focus;
  while (window != XCB_NONE && window != x11.root()) {
    if (answersPings(x11, window) == Pings::yes) return window;
    const XcbPtr<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(c, xcb_query_tree(c, window), nullptr));
    if (!tree) break;
    window = tree->parent;
  }
  return focus->focus;
}

PingResult ping(X11Connection& x11, xcb_window_t window, std::chrono::milliseconds bound) {
  xcb_connection_t* const c = x11.current();
  switch (answersPings(x11, window)) {
    case Pings::gone:
      return PingResult::gone;
    case Pings::no:
      return PingResult::unsupported;
    case Pings::yes:
      break;
  }
  // Tells this answer from a late one and from the window manager's, whose serial is the time stamp
  // in data32[1].
  const auto mark = static_cast<std::uint32_t>(Clock::now().time_since_epoch().count());
  const xcb_atom_t wmPing = x11.atom("_NET_WM_PING");
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window;
  message.type = x11.atom("WM_PROTOCOLS");
  message.data.data32[0] = wmPing;
  message.data.data32[1] = XCB_CURRENT_TIME;
  message.data.data32[2] = window;
  message.data.data32[3] = mark;

  // Toolkits differ in which of the two they address their answer to.
  selectOnRoot(x11, XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_STRUCTURE_NOTIFY);
  xcb_send_event(c, 0, window, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&message));
  const auto deadline = Clock::now() + bound;
  PingResult result = PingResult::timedOut;
  while (auto event = nextEvent(c, deadline)) {
    const int kind = event->response_type & 0x7F;
    if (kind == XCB_CLIENT_MESSAGE) {
      const auto& answer = reinterpret_cast<const xcb_client_message_event_t&>(*event);
      if (answer.window == x11.root() && answer.data.data32[0] == wmPing &&
          answer.data.data32[2] == window && answer.data.data32[3] == mark) {
        result = PingResult::answered;
        break;
      }
    } else if (kind == XCB_UNMAP_NOTIFY || kind == XCB_DESTROY_NOTIFY || kind == 0) {
      if (answersPings(x11, window) == Pings::gone) {
        result = PingResult::gone;
        break;
      }
    }
  }
  selectOnRoot(x11, XCB_EVENT_MASK_NO_EVENT);
  return result;
}

}  // namespace vesko
