#include "platform/linux/x11_keyboard.h"

#include <xcb/xtest.h>

#include <algorithm>
#include <bitset>
#include <optional>
#include <ranges>
#include <string>
#include <variant>
#include <vector>

#include "platform/linux/key_symbols.h"
#include "platform/linux/x11_key_devices.h"
#include "platform/linux/x11_ping.h"
#include "platform/linux/x11_xkb.h"

namespace vesko {
namespace {

void fakeKey(xcb_connection_t* c, std::uint8_t event, xcb_keycode_t keycode) {
  xcb_test_fake_input(c, event, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
}

// A carriage return with its line feed is one press of Return.
std::u32string decode(std::u16string_view text) {
  std::u32string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char32_t unit = text[i];
    const bool high = unit >= 0xD800 && unit < 0xDC00;
    if (high && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00) {
      result.push_back(0x10000 + ((unit - 0xD800) << 10) + (text[++i] - 0xDC00U));
    } else if (unit != U'\n' || result.empty() || result.back() != U'\r') {
      result.push_back(unit);
    }
  }
  return result;
}

std::optional<X11Stroke> directStroke(const X11Keymap& keymap, char32_t character) {
  const auto symbol = symbolOf(character);
  if (!symbol) return std::nullopt;
  // Return, Tab and their like are keys; any other symbol may stand for the character.
  const bool key = *symbol >= 0xFF00 && *symbol <= 0xFFFF;
  return key ? keymap.strokeFor(*symbol) : keymap.strokeForCharacter(character);
}

}  // namespace

class X11Keyboard::NeutralModifiers {
 public:
  NeutralModifiers(X11Connection& x11, const X11Keymap& keymap) : x11_(x11) {
    xcb_connection_t* const c = x11.current();
    const KeysDown devices = keysDown(x11);
    const auto keysCookie = xcb_query_keymap(c);
    const auto stateCookie = xcb_xkb_get_state(c, XCB_XKB_ID_USE_CORE_KBD);
    const XcbPtr<xcb_query_keymap_reply_t> keys(xcb_query_keymap_reply(c, keysCookie, nullptr));
    const XcbPtr<xcb_xkb_get_state_reply_t> state(xcb_xkb_get_state_reply(c, stateCookie, nullptr));
    // Num Lock changes nothing outside the keypad, which is never used.
    const unsigned ignored = keymap.numLockMod();
    if (state) {
      locked_ = static_cast<std::uint8_t>(state->lockedMods & ~ignored);
      const auto latched = static_cast<std::uint8_t>(state->latchedMods & ~ignored);
      if ((locked_ | latched) != 0)
        xcb_xkb_latch_lock_state(c, XCB_XKB_ID_USE_CORE_KBD, locked_, 0, 0, 0, latched, 0, 0);
    }
    for (unsigned code = 0; keys && code < 256; ++code) {
      const auto keycode = static_cast<xcb_keycode_t>(code);
      // Releasing and pressing a lock key would switch the lock.
      if ((keymap.modifierOf(keycode) & ~(x11_mods::lock | ignored)) == 0) continue;
      const bool down = (keys->keys[code / 8] >> (code % 8) & 1) != 0;
      const bool synthetic = devices.synthetic[code];
      // What was pressed here for a key held on hardware stays pressed on the synthetic keyboard
      // after the user let go, and would swallow the next press.
      if (down || synthetic) fakeKey(c, XCB_KEY_RELEASE, keycode);
      if (down) (synthetic && !devices.hardware[code] ? heldByClients_ : heldByUser_).set(code);
    }
  }
  NeutralModifiers(const NeutralModifiers&) = delete;
  NeutralModifiers& operator=(const NeutralModifiers&) = delete;
  ~NeutralModifiers() {
    fakeKeys(XCB_KEY_PRESS, heldByClients_);
    if (heldByUser_.any()) {
      const auto still = heldByUser_ & keysDown(x11_).hardware;
      fakeKeys(XCB_KEY_PRESS, still);
      // A key that the user let go of just before its press came too late would stay down.
      if (still.any()) fakeKeys(XCB_KEY_RELEASE, still & ~keysDown(x11_).hardware);
    }
    if (locked_ != 0)
      xcb_xkb_latch_lock_state(x11_.current(), XCB_XKB_ID_USE_CORE_KBD, locked_, locked_, 0, 0, 0,
                               0, 0);
  }

 private:
  void fakeKeys(std::uint8_t event, const std::bitset<256>& keys) {
    for (unsigned code = 0; code < keys.size(); ++code) {
      if (keys[code]) fakeKey(x11_.current(), event, static_cast<xcb_keycode_t>(code));
    }
  }

  X11Connection& x11_;
  std::uint8_t locked_ = 0;
  std::bitset<256> heldByUser_;
  std::bitset<256> heldByClients_;
};

bool X11Keyboard::post(std::span<const InputEvent> events) {
  xcb_connection_t* const c = x11_.current();
  auto keymap = X11Keymap::read(c, borrowed_.keycodes());
  if (!keymap) return false;
  borrowed_.refresh(*keymap);
  const NeutralModifiers neutral(x11_, *keymap);

  std::u16string text;
  const auto typePending = [&] {
    const bool typed = text.empty() || type(decode(text), *keymap);
    text.clear();
    return typed;
  };
  for (const InputEvent& event : events) {
    const auto* key = std::get_if<KeyEvent>(&event);
    if (!key) continue;
    if (!key->text.empty()) {
      if (key->down) text += key->text;
    } else if (!typePending() || !press(*key, *keymap)) {
      return false;
    }
  }
  return typePending();
}

bool X11Keyboard::press(const KeyEvent& event, const X11Keymap& keymap) {
  const auto symbol = keySymbol(event.key);
  if (!symbol) return false;
  const bool makesCharacter = symbol->plain != symbol->shifted;
  bool shift = (event.flags & key_flags::shift) != 0;
  bool thirdLevel = false;
  xcb_keycode_t keycode = 0;
  std::uint8_t layout = keymap.activeLayout();
  const xkb_keysym_t wanted = shift ? symbol->shifted : symbol->plain;
  if (const auto stroke = keymap.strokeFor(wanted)) {
    keycode = stroke->keycode;
    // The character says what its key needs here: "+" is not shift with "=" in every layout.
    if (makesCharacter) shift = (stroke->mods & x11_mods::shift) != 0;
    thirdLevel = (stroke->mods & keymap.thirdLevelMod()) != 0;
  } else if (const auto other = keymap.inOtherLayout(symbol->plain)) {
    // As with the Latin letters of shortcuts while another script is the active layout.
    keycode = other->stroke.keycode;
    layout = other->layout;
  } else {
    keycode = static_cast<xcb_keycode_t>(symbol->position);
  }

  std::vector<xcb_keycode_t> keys;
  const auto hold = [&](std::optional<xcb_keycode_t> modifier) {
    if (modifier && *modifier != 0) keys.push_back(*modifier);
  };
  if ((event.flags & (key_flags::command | key_flags::control)) != 0)
    hold(keymap.modifierKey(XKB_KEY_Control_L));
  if ((event.flags & key_flags::option) != 0) hold(keymap.modifierKey(XKB_KEY_Alt_L));
  if (shift) hold(keymap.shiftKey());
  if (thirdLevel) hold(keymap.thirdLevelKey());
  keys.push_back(keycode);
  const bool otherLayout = layout != keymap.activeLayout();
  if (event.down) {
    if (otherLayout) lockLayout(layout);
    for (const xcb_keycode_t key : keys) fake(XCB_KEY_PRESS, key);
  } else {
    for (const xcb_keycode_t key : keys | std::views::reverse) fake(XCB_KEY_RELEASE, key);
    if (otherLayout) lockLayout(keymap.activeLayout());
  }
  return true;
}

bool X11Keyboard::type(std::u32string_view text, const X11Keymap& keymap) {
  if (!std::ranges::all_of(text, [](char32_t c) { return symbolOf(c).has_value(); })) return false;

  // Stretches whose missing symbols all have a place at the same time.
  while (!text.empty()) {
    std::vector<xkb_keysym_t> missing;
    std::vector<std::size_t> firstUse;
    std::size_t end = 0;
    for (; end < text.size(); ++end) {
      if (directStroke(keymap, text[end])) continue;
      const xkb_keysym_t symbol = *symbolOf(text[end]);
      if (std::ranges::find(missing, symbol) != missing.end()) continue;
      if (borrowed_.capacity() == 0) return false;
      if (missing.size() == borrowed_.capacity()) break;
      missing.push_back(symbol);
      firstUse.push_back(end);
    }
    if (!missing.empty()) {
      const std::size_t placed = borrowed_.place(missing);
      if (placed == 0) return false;
      if (placed < missing.size()) end = firstUse[placed];
    }
    if (!typeStretch(text.substr(0, end), keymap)) return false;
    text.remove_prefix(end);
  }
  return true;
}

bool X11Keyboard::typeStretch(std::u32string_view text, const X11Keymap& keymap) {
  std::uint8_t heldMods = 0;
  const auto hold = [&](std::uint8_t mods) {
    const auto change = [&](std::uint8_t mod, xcb_keycode_t key) {
      if (((heldMods ^ mods) & mod) != 0)
        fake((mods & mod) != 0 ? XCB_KEY_PRESS : XCB_KEY_RELEASE, key);
    };
    change(x11_mods::shift, keymap.shiftKey());
    change(keymap.thirdLevelMod(), keymap.thirdLevelKey());
    heldMods = mods;
  };
  bool throughPlaces = false;
  for (const char32_t character : text) {
    auto stroke = directStroke(keymap, character);
    if (!stroke) {
      stroke = borrowed_.strokeFor(*symbolOf(character));
      throughPlaces = true;
    }
    if (!stroke) {
      hold(0);
      return false;
    }
    hold(stroke->mods);
    fake(XCB_KEY_PRESS, stroke->keycode);
    fake(XCB_KEY_RELEASE, stroke->keycode);
  }
  hold(0);
  if (throughPlaces) {
    if (const auto window = focusedClient(x11_)) borrowed_.usedIn(*window);
  }
  return true;
}

void X11Keyboard::lockLayout(std::uint8_t layout) {
  xcb_xkb_latch_lock_state(x11_.current(), XCB_XKB_ID_USE_CORE_KBD, 0, 0, 1, layout, 0, 0, 0);
}

void X11Keyboard::fake(std::uint8_t event, xcb_keycode_t keycode) {
  fakeKey(x11_.current(), event, keycode);
}

}  // namespace vesko
