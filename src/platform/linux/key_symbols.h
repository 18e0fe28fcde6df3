// X key symbols for virtual key codes of the ANSI keyboard, and for characters. Any thread.
// Reference: the kVK_ constants of the HIToolbox event header; X Window System Protocol, appendix A
// (a Unicode symbol is 0x01000000 plus its code point).
#pragma once

#include <xkbcommon/xkbcommon.h>

#include <optional>

#include "platform/input_events.h"

namespace vesko {

struct KeySymbol {
  xkb_keysym_t plain = XKB_KEY_NoSymbol;
  /// What the key makes with shift; the same as `plain` for keys that make no character.
  xkb_keysym_t shifted = XKB_KEY_NoSymbol;
  /// Where the key is on a PC keyboard (evdev key code plus 8).
  xkb_keycode_t position = 0;
};

std::optional<KeySymbol> keySymbol(VirtualKey key);

/// Nothing for what no key can type: most control characters, surrogates, noncharacters.
std::optional<xkb_keysym_t> symbolOf(char32_t character);

}  // namespace vesko
