// Key and modifier names of the input tools. Any thread.
// Codes: the kVK_ constants of the HIToolbox event header; masks: CGEventFlags.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/input_events.h"

namespace vesko {

struct KeyStroke {
  VirtualKey key = 0;
  std::uint32_t flags = 0;
  bool operator==(const KeyStroke&) const = default;
};

/// The key of that name, in any case and with white space around it; a shifted character, as "+",
/// is its base key with shift.
std::optional<KeyStroke> keyNamed(std::string_view name);

/// The flag of "command", "shift", "option" or "control".
std::optional<std::uint32_t> modifierNamed(std::string_view name);

}  // namespace vesko
