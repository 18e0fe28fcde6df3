// Key combinations as people type them. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesko {

/// "ctrl+shift+s", "command s" or "ctrl++" as modifiers and one key, in the control server's words;
/// nothing when no key is named. The words themselves are the server's to judge.
std::optional<std::vector<std::string>> parseKeyCombination(std::string_view text);

/// A modifier's usual short names as its full one; any other word as it is.
std::string fullModifierName(std::string_view name);

}  // namespace vesko
