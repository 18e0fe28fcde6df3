#include "platform/linux/xtest_input.h"

#include <xcb/xtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <variant>

#include "platform/linux/x11_watch.h"

namespace vesko {
namespace {

// Above what an application that hangs is waited for while typing.
constexpr std::chrono::seconds serverPatience{15};
constexpr std::uint8_t leftButton = 1;
constexpr std::uint8_t rightButton = 3;
constexpr std::uint8_t wheelUp = 4;
constexpr std::uint8_t wheelDown = 5;
constexpr std::uint8_t wheelLeft = 6;
constexpr std::uint8_t wheelRight = 7;

// The server keeps the pointer on its screens; the protocol only has 16 bits.
std::int16_t pixel(double coordinate) {
  using Limits = std::numeric_limits<std::int16_t>;
  return static_cast<std::int16_t>(
      std::clamp<double>(std::floor(coordinate), Limits::min(), Limits::max()));
}

}  // namespace

bool XTestInput::hasXTest() {
  const auto* extension = xcb_get_extension_data(x11_.current(), &xcb_test_id);
  return extension && extension->present != 0;
}

std::optional<Point> XTestInput::pointerLocation() {
  const MutexLock lock(mutex_);
  if (!x11_.get()) return std::nullopt;
  const X11Watch watch(x11_.current(), serverPatience);
  if (!hasXTest()) return std::nullopt;
  xcb_connection_t* const c = x11_.current();
  const XcbPtr<xcb_query_pointer_reply_t> reply(
      xcb_query_pointer_reply(c, xcb_query_pointer(c, x11_.root()), nullptr));
  if (!reply) return std::nullopt;
  return Point{static_cast<double>(reply->root_x), static_cast<double>(reply->root_y)};
}

bool XTestInput::post(std::span<const InputEvent> events) {
  const MutexLock lock(mutex_);
  if (!x11_.get()) return false;
  const X11Watch watch(x11_.current(), serverPatience);
  if (!hasXTest()) return false;
  while (!events.empty()) {
    if (const auto* event = std::get_if<MouseEvent>(&events.front())) {
      mouse(*event);
      events = events.subspan(1);
    } else if (const auto* wheel = std::get_if<ScrollEvent>(&events.front())) {
      scroll(*wheel);
      events = events.subspan(1);
    } else {
      const auto other = std::ranges::find_if(
          events, [](const InputEvent& e) { return !std::holds_alternative<KeyEvent>(e); });
      const auto keys = static_cast<std::size_t>(other - events.begin());
      if (!keyboard_.post(events.first(keys))) {
        drain();
        return false;
      }
      events = events.subspan(keys);
    }
  }
  return drain();
}

bool XTestInput::drain() {
  xcb_connection_t* const c = x11_.current();
  // Any reply shows that the server has processed all that was sent before.
  const XcbPtr<xcb_get_input_focus_reply_t> reply(
      xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr));
  while (const XcbPtr<xcb_generic_event_t> unwanted{xcb_poll_for_event(c)}) {
  }
  return reply != nullptr;
}

void XTestInput::button(std::uint8_t event, std::uint8_t number) {
  xcb_test_fake_input(x11_.current(), event, number, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
}

void XTestInput::mouse(const MouseEvent& event) {
  xcb_test_fake_input(x11_.current(), XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, x11_.root(),
                      pixel(event.at.x), pixel(event.at.y), 0);
  switch (event.kind) {
    case MouseEvent::Kind::moved:
    case MouseEvent::Kind::leftDragged:
      return;
    case MouseEvent::Kind::leftDown:
      return button(XCB_BUTTON_PRESS, leftButton);
    case MouseEvent::Kind::leftUp:
      return button(XCB_BUTTON_RELEASE, leftButton);
    case MouseEvent::Kind::rightDown:
      return button(XCB_BUTTON_PRESS, rightButton);
    case MouseEvent::Kind::rightUp:
      return button(XCB_BUTTON_RELEASE, rightButton);
  }
}

void XTestInput::scroll(const ScrollEvent& event) {
  const auto turn = [this](int clicks, std::uint8_t positive, std::uint8_t negative)
                        VESKO_REQUIRES(mutex_) {
                          for (int i = 0; i < std::abs(clicks); ++i) {
                            button(XCB_BUTTON_PRESS, clicks > 0 ? positive : negative);
                            button(XCB_BUTTON_RELEASE, clicks > 0 ? positive : negative);
                          }
                        };
  turn(vertical_.take(event.vertical), wheelUp, wheelDown);
  turn(horizontal_.take(event.horizontal), wheelLeft, wheelRight);
}

}  // namespace vesko
