// The keyboard mapping as it is now: which key and modifiers make a symbol in the active layout.
#pragma once

#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>

namespace vesko {

/// Real modifier bits of the X protocol.
namespace x11_mods {
inline constexpr std::uint8_t shift = 1;
inline constexpr std::uint8_t lock = 2;
inline constexpr std::uint8_t control = 4;
}  // namespace x11_mods

struct X11Stroke {
  xcb_keycode_t keycode = 0;
  /// Exactly these modifiers, of shift and the third-level modifier.
  std::uint8_t mods = 0;
};

/// A snapshot; holds nothing of the connection that it was read from. Not synchronised.
class X11Keymap {
 public:
  /// Keys in `ignoredKeys` are not searched. Nothing when the server has no keyboard extension.
  static std::optional<X11Keymap> read(xcb_connection_t* connection,
                                       const std::set<xcb_keycode_t>& ignoredKeys);

  /// With the fewest modifiers; in the active layout alone.
  std::optional<X11Stroke> strokeFor(xkb_keysym_t symbol) const;
  /// The same for any symbol of that character, keypad keys excepted.
  std::optional<X11Stroke> strokeForCharacter(char32_t character) const;
  struct OtherLayout {
    X11Stroke stroke;
    std::uint8_t layout = 0;
  };
  /// A key that makes `symbol` without modifiers once that layout is the active one.
  std::optional<OtherLayout> inOtherLayout(xkb_keysym_t symbol) const;
  std::uint8_t activeLayout() const { return activeLayout_; }
  /// The key with that symbol in any layout: right for modifiers, which are the same in all.
  std::optional<xcb_keycode_t> modifierKey(xkb_keysym_t symbol) const;

  /// The one symbol at that level of the first layout, XKB_KEY_NoSymbol for none.
  xkb_keysym_t symbolAt(xcb_keycode_t keycode, unsigned level) const;

  /// The modifier that key sets, 0 for other keys.
  std::uint8_t modifierOf(xcb_keycode_t keycode) const { return modifierOf_[keycode]; }
  /// The keys that hold the modifiers of an X11Stroke down.
  xcb_keycode_t shiftKey() const { return shiftKey_; }
  xcb_keycode_t thirdLevelKey() const { return thirdLevelKey_; }
  /// 0 when the mapping has none.
  std::uint8_t thirdLevelMod() const { return thirdLevelMod_; }
  std::uint8_t numLockMod() const { return numLockMod_; }

 private:
  template <auto release>
  struct Release {
    template <class T>
    void operator()(T* object) const {
      release(object);
    }
  };
  using Keymap = std::unique_ptr<xkb_keymap, Release<xkb_keymap_unref>>;

  X11Keymap() = default;
  bool readModifiers(xcb_connection_t* connection);
  void index(xkb_state* state, const std::set<xcb_keycode_t>& ignoredKeys);

  Keymap keymap_;
  std::array<std::uint8_t, 256> modifierOf_{};
  xcb_keycode_t shiftKey_ = 0;
  xcb_keycode_t thirdLevelKey_ = 0;
  std::uint8_t thirdLevelMod_ = 0;
  std::uint8_t numLockMod_ = 0;
  std::unordered_map<xkb_keysym_t, X11Stroke> bySymbol_;
  std::unordered_map<char32_t, X11Stroke> byCharacter_;
  std::unordered_map<xkb_keysym_t, OtherLayout> inAnyLayout_;
  std::uint8_t activeLayout_ = 0;
};

}  // namespace vesko
