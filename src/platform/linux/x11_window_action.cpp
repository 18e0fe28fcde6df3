#include "platform/linux/x11_window_action.h"

#include <poll.h>

#include <algorithm>

namespace vesko {
namespace {

// What restores or resizes a window moves it in several steps, milliseconds apart.
constexpr std::chrono::milliseconds atRest{30};

// Tells the manager that a tool of the user asks, and no application for itself.
constexpr std::uint32_t fromPager = 2;

void pauseUntil(X11Session::Clock::time_point when) {
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(when - X11Session::Clock::now()).count();
  ::poll(nullptr, 0, static_cast<int>(std::max<std::int64_t>(left, 0)));
}

/// The window, or a dialog that has to be answered before the window can be used.
bool leadsTo(X11Session& x11, xcb_window_t active, xcb_window_t window) {
  for (int depth = 0; depth < 8 && active != XCB_WINDOW_NONE; ++depth) {
    if (active == window) return true;
    const auto read = readWindow(x11, active);
    if (!read || !read->modal) return false;
    active = read->transientFor;
  }
  return false;
}

}  // namespace

X11WindowAction::X11WindowAction(X11Session& x11, xcb_window_t window)
    : x11_(x11), window_(window), managed_(hasWindowManager(x11)) {
  x11.keepToItself();
  const std::uint32_t ofWindow = XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_PROPERTY_CHANGE |
                                 XCB_EVENT_MASK_FOCUS_CHANGE;
  const std::uint32_t ofRoot = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(x11.connection(), window, XCB_CW_EVENT_MASK, &ofWindow);
  xcb_change_window_attributes(x11.connection(), x11.root(), XCB_CW_EVENT_MASK, &ofRoot);
}

std::optional<X11Window> X11WindowAction::read() {
  return readWindow(x11_, window_);
}

bool X11WindowAction::allows(XAtom action) {
  const auto allowed = cardinalsIfAny(x11_, window_, XAtom::netWmAllowedActions);
  return !allowed || std::ranges::find(*allowed, x11_.atom(action)) != allowed->end();
}

void X11WindowAction::ask(XAtom message, const std::array<std::uint32_t, 5>& data) {
  xcb_client_message_event_t event{};
  event.response_type = XCB_CLIENT_MESSAGE;
  event.format = 32;
  event.window = window_;
  event.type = x11_.atom(message);
  std::ranges::copy(data, event.data.data32);
  xcb_send_event(x11_.connection(), 0, x11_.root(),
                 XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
                 reinterpret_cast<const char*>(&event));
}

void X11WindowAction::askState(bool add, XAtom first, XAtom second) {
  const std::uint32_t other = second == first ? 0 : x11_.atom(second);
  ask(XAtom::netWmState, {add ? 1U : 0U, x11_.atom(first), other, fromPager, 0});
}

AXError X11WindowAction::focus(std::chrono::milliseconds bound) {
  const auto before = read();
  if (!before) return error();
  if (managed_) {
    ask(XAtom::netActiveWindow, {fromPager, XCB_CURRENT_TIME, 0, 0, 0});
  } else {
    if (!before->viewable) return AXError::attributeUnsupported;
    constexpr std::uint32_t above = XCB_STACK_MODE_ABOVE;
    xcb_configure_window(x11_.connection(), window_, XCB_CONFIG_WINDOW_STACK_MODE, &above);
    xcb_set_input_focus(x11_.connection(), XCB_INPUT_FOCUS_PARENT, window_, XCB_CURRENT_TIME);
  }
  return await(
      [this](const X11Window& now) {
        return !now.hidden && leadsTo(x11_, activeWindow(x11_), window_);
      },
      bound);
}

AXError X11WindowAction::await(const Condition& holds, std::chrono::milliseconds bound) {
  const auto until = Clock::now() + bound;
  // The last reading at which the condition held. Nothing tells of a frame that a manager moves
  // step by step with the window in it, so rest is two readings alike.
  std::optional<Rect> heldAt;
  for (;;) {
    const auto window = read();
    if (!window) return error();
    const bool held = holds(*window);
    const auto now = Clock::now();
    if (now >= until) return held ? AXError::success : AXError::failure;
    if (held && heldAt == window->frame) return AXError::success;
    heldAt = held ? std::optional(window->frame) : std::nullopt;
    // Events make a condition hold; that it still does is seen after a pause.
    if (held)
      pauseUntil(std::min(until, now + atRest));
    else
      x11_.event(until);
    // One reading answers for all that has come meanwhile.
    while (x11_.event(Clock::time_point{})) {
    }
    if (x11_.broken()) return AXError::failure;
  }
}

}  // namespace vesko
