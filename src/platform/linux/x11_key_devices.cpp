#include "platform/linux/x11_key_devices.h"

#include <xcb/xinput.h>

#include <cstdint>
#include <span>
#include <vector>

namespace vesko {
namespace {

std::bitset<256> keysOf(const xcb_input_query_device_state_reply_t& state) {
  std::bitset<256> result;
  auto part = xcb_input_query_device_state_classes_iterator(&state);
  for (; part.rem > 0; xcb_input_input_state_next(&part)) {
    if (part.data->class_id != XCB_INPUT_INPUT_CLASS_KEY) continue;
    const auto* keys = reinterpret_cast<const xcb_input_key_state_t*>(part.data);
    for (unsigned code = 0; code < 256; ++code)
      result[code] = (keys->keys[code / 8] >> (code % 8) & 1) != 0;
  }
  return result;
}

}  // namespace

KeysDown keysDown(X11Connection& x11) {
  xcb_connection_t* const c = x11.current();
  KeysDown result;
  const auto* extension = xcb_get_extension_data(c, &xcb_input_id);
  if (!extension || extension->present == 0) return result;
  const xcb_atom_t syntheticMark = x11.atom("XTEST Device");
  const XcbPtr<xcb_input_list_input_devices_reply_t> list(
      xcb_input_list_input_devices_reply(c, xcb_input_list_input_devices(c), nullptr));
  if (!list) return result;

  struct Asked {
    xcb_input_get_device_property_cookie_t mark;
    xcb_input_query_device_state_cookie_t state;
  };
  std::vector<Asked> asked;
  for (const auto& device :
       std::span(xcb_input_list_input_devices_devices(list.get()), list->devices_len)) {
    // These two are what the others feed.
    if (device.device_use == XCB_INPUT_DEVICE_USE_IS_X_POINTER ||
        device.device_use == XCB_INPUT_DEVICE_USE_IS_X_KEYBOARD)
      continue;
    asked.push_back(
        {xcb_input_get_device_property(c, syntheticMark, XCB_ATOM_ANY, 0, 1, device.device_id, 0),
         xcb_input_query_device_state(c, device.device_id)});
  }
  for (const Asked& device : asked) {
    const XcbPtr<xcb_input_get_device_property_reply_t> mark(
        xcb_input_get_device_property_reply(c, device.mark, nullptr));
    const XcbPtr<xcb_input_query_device_state_reply_t> state(
        xcb_input_query_device_state_reply(c, device.state, nullptr));
    // One that was unplugged just now holds nothing.
    if (!mark || !state) continue;
    (mark->type != XCB_ATOM_NONE ? result.synthetic : result.hardware) |= keysOf(*state);
  }
  return result;
}

}  // namespace vesko
