#include "platform/linux/x11_keymap.h"

#include <xkbcommon/xkbcommon-x11.h>

#include <algorithm>
#include <bit>
#include <span>

#include "platform/linux/x11_connection.h"

namespace vesko {
namespace {

bool onKeypad(xkb_keysym_t symbol) {
  return symbol >= XKB_KEY_KP_Space && symbol <= XKB_KEY_KP_Equal;
}

xkb_keysym_t oneSymbol(xkb_keymap* keymap, xkb_keycode_t key, xkb_layout_index_t layout,
                       xkb_level_index_t level) {
  const xkb_keysym_t* symbols = nullptr;
  const int count = xkb_keymap_key_get_syms_by_level(keymap, key, layout, level, &symbols);
  return count == 1 ? symbols[0] : XKB_KEY_NoSymbol;
}

}  // namespace

std::optional<X11Keymap> X11Keymap::read(xcb_connection_t* connection,
                                         const std::set<xcb_keycode_t>& ignoredKeys) {
  if (!xkb_x11_setup_xkb_extension(
          connection, XKB_X11_MIN_MAJOR_XKB_VERSION, XKB_X11_MIN_MINOR_XKB_VERSION,
          XKB_X11_SETUP_XKB_EXTENSION_NO_FLAGS, nullptr, nullptr, nullptr, nullptr))
    return std::nullopt;
  const std::int32_t device = xkb_x11_get_core_keyboard_device_id(connection);
  if (device < 0) return std::nullopt;
  const std::unique_ptr<xkb_context, Release<xkb_context_unref>> context(
      xkb_context_new(XKB_CONTEXT_NO_DEFAULT_INCLUDES));
  if (!context) return std::nullopt;

  X11Keymap result;
  result.keymap_.reset(xkb_x11_keymap_new_from_device(context.get(), connection, device,
                                                      XKB_KEYMAP_COMPILE_NO_FLAGS));
  if (!result.keymap_) return std::nullopt;
  const std::unique_ptr<xkb_state, Release<xkb_state_unref>> state(
      xkb_x11_state_new_from_device(result.keymap_.get(), connection, device));
  if (!state || !result.readModifiers(connection)) return std::nullopt;
  result.index(state.get(), ignoredKeys);
  return result;
}

bool X11Keymap::readModifiers(xcb_connection_t* connection) {
  const XcbPtr<xcb_get_modifier_mapping_reply_t> reply(
      xcb_get_modifier_mapping_reply(connection, xcb_get_modifier_mapping(connection), nullptr));
  if (!reply) return false;
  const std::size_t width = reply->keycodes_per_modifier;
  const std::span keycodes(xcb_get_modifier_mapping_keycodes(reply.get()), width * 8);
  for (std::size_t i = 0; i < keycodes.size(); ++i) {
    const xcb_keycode_t keycode = keycodes[i];
    if (keycode == 0) continue;
    const auto mod = static_cast<std::uint8_t>(1U << (i / width));
    modifierOf_[keycode] |= mod;
    const xkb_keysym_t symbol = symbolAt(keycode, 0);
    if (symbol == XKB_KEY_Shift_L || (symbol == XKB_KEY_Shift_R && shiftKey_ == 0))
      shiftKey_ = keycode;
    if (symbol == XKB_KEY_ISO_Level3_Shift && thirdLevelKey_ == 0) {
      thirdLevelKey_ = keycode;
      thirdLevelMod_ = mod;
    }
    if (symbol == XKB_KEY_Num_Lock) numLockMod_ = mod;
  }
  return true;
}

void X11Keymap::index(xkb_state* state, const std::set<xcb_keycode_t>& ignoredKeys) {
  xkb_keymap* const keymap = keymap_.get();
  activeLayout_ =
      static_cast<std::uint8_t>(xkb_state_serialize_layout(state, XKB_STATE_LAYOUT_EFFECTIVE));
  const unsigned usable = x11_mods::shift | thirdLevelMod_;
  const auto keep = [](auto& strokes, auto key, X11Stroke stroke) {
    const auto [entry, isNew] = strokes.try_emplace(key, stroke);
    if (!isNew && std::popcount(stroke.mods) < std::popcount(entry->second.mods))
      entry->second = stroke;
  };
  const xkb_keycode_t last = std::min<xkb_keycode_t>(xkb_keymap_max_keycode(keymap), 255);
  for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap); key <= last; ++key) {
    const auto keycode = static_cast<xcb_keycode_t>(key);
    if (ignoredKeys.contains(keycode)) continue;
    const xkb_layout_index_t active = xkb_state_key_get_layout(state, key);
    const xkb_layout_index_t layouts = xkb_keymap_num_layouts_for_key(keymap, key);
    for (xkb_layout_index_t layout = 0; layout < layouts; ++layout) {
      inAnyLayout_.try_emplace(oneSymbol(keymap, key, layout, 0),
                               OtherLayout{{keycode, 0}, static_cast<std::uint8_t>(layout)});
    }
    if (active >= layouts) continue;
    const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(keymap, key, active);
    for (xkb_level_index_t level = 0; level < levels; ++level) {
      const xkb_keysym_t symbol = oneSymbol(keymap, key, active, level);
      if (symbol == XKB_KEY_NoSymbol) continue;
      std::array<xkb_mod_mask_t, 16> masks{};
      const std::size_t count =
          xkb_keymap_key_get_mods_for_level(keymap, key, active, level, masks.data(), masks.size());
      for (const xkb_mod_mask_t mask : std::span(masks).first(count)) {
        if ((mask & ~usable) != 0) continue;
        const X11Stroke stroke{keycode, static_cast<std::uint8_t>(mask)};
        keep(bySymbol_, symbol, stroke);
        const char32_t character = xkb_keysym_to_utf32(symbol);
        if (character != 0 && !onKeypad(symbol)) keep(byCharacter_, character, stroke);
      }
    }
  }
}

std::optional<X11Stroke> X11Keymap::strokeFor(xkb_keysym_t symbol) const {
  const auto found = bySymbol_.find(symbol);
  if (found == bySymbol_.end()) return std::nullopt;
  return found->second;
}

std::optional<X11Stroke> X11Keymap::strokeForCharacter(char32_t character) const {
  const auto found = byCharacter_.find(character);
  if (found == byCharacter_.end()) return std::nullopt;
  return found->second;
}

std::optional<X11Keymap::OtherLayout> X11Keymap::inOtherLayout(xkb_keysym_t symbol) const {
  const auto found = inAnyLayout_.find(symbol);
  if (found == inAnyLayout_.end()) return std::nullopt;
  return found->second;
}

std::optional<xcb_keycode_t> X11Keymap::modifierKey(xkb_keysym_t symbol) const {
  const auto found = inOtherLayout(symbol);
  if (!found) return std::nullopt;
  return found->stroke.keycode;
}

xkb_keysym_t X11Keymap::symbolAt(xcb_keycode_t keycode, unsigned level) const {
  if (xkb_keymap_num_layouts_for_key(keymap_.get(), keycode) == 0) return XKB_KEY_NoSymbol;
  return oneSymbol(keymap_.get(), keycode, 0, level);
}

}  // namespace vesko
