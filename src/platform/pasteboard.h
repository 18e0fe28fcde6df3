// The session's general clipboard, as text.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vesko {

/// Any thread. Both calls wait for the desktop a few seconds at most, and longer only, but never
/// without a bound, while a long text keeps coming.
class Pasteboard {
 public:
  virtual ~Pasteboard() = default;

  /// Valid UTF-8; nothing when the clipboard holds no text or its owner does not deliver it.
  virtual std::optional<std::string> text() = 0;

  /// Replaces the contents with `text`, which is valid UTF-8. False when the desktop refused.
  [[nodiscard]] virtual bool setText(std::string_view text) = 0;

  /// How often other programs have read a text that was set here. A desktop that cannot tell
  /// always answers 0.
  virtual std::uint64_t reads() = 0;
  /// Waits until reads() is beyond `seen`, at most for `bound`; where reads cannot be told, not at
  /// all. A pasting program reads at a time of its own choosing: whoever acts on it next waits.
  virtual void awaitReadBeyond(std::uint64_t seen, std::chrono::milliseconds bound) = 0;
};

}  // namespace vesko
