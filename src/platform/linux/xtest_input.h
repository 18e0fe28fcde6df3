// Synthetic input on an X server through the XTEST extension.
//
// A point is a pixel of the root window. Pixels of scrolling become clicks of the wheel buttons.
// Thread: any; one lock and one connection of its own, so that two sequences never interleave.
#pragma once

#include <optional>
#include <span>

#include "base/mutex.h"
#include "platform/input_events.h"
#include "platform/linux/wheel_clicks.h"
#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_keyboard.h"

namespace vesko {

class XTestInput : public InputEvents {
 public:
  std::optional<Point> pointerLocation() override;
  [[nodiscard]] bool post(std::span<const InputEvent> events) override;

 private:
  bool hasXTest() VESKO_REQUIRES(mutex_);
  void mouse(const MouseEvent& event) VESKO_REQUIRES(mutex_);
  void scroll(const ScrollEvent& event) VESKO_REQUIRES(mutex_);
  void button(std::uint8_t event, std::uint8_t number) VESKO_REQUIRES(mutex_);
  bool drain() VESKO_REQUIRES(mutex_);

  Mutex mutex_;
  X11Connection x11_ VESKO_GUARDED_BY(mutex_);
  X11Keyboard keyboard_ VESKO_GUARDED_BY(mutex_){x11_};
  WheelClicks vertical_ VESKO_GUARDED_BY(mutex_);
  WheelClicks horizontal_ VESKO_GUARDED_BY(mutex_);
};

}  // namespace vesko
