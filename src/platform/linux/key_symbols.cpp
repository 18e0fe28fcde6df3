#include "platform/linux/key_symbols.h"

#include <algorithm>
#include <array>

namespace vesko {
namespace {

struct Entry {
  VirtualKey key;
  KeySymbol symbol;
};

constexpr Entry character(VirtualKey key, char plain, char shifted, xkb_keycode_t position) {
  return {key, {static_cast<xkb_keysym_t>(plain), static_cast<xkb_keysym_t>(shifted), position}};
}
constexpr Entry letter(VirtualKey key, char plain, xkb_keycode_t position) {
  return character(key, plain, static_cast<char>(plain - 'a' + 'A'), position);
}
constexpr Entry function(VirtualKey key, xkb_keysym_t symbol, xkb_keycode_t position) {
  return {key, {symbol, symbol, position}};
}

constexpr std::array entries{
    letter(0, 'a', 38),
    letter(1, 's', 39),
    letter(2, 'd', 40),
    letter(3, 'f', 41),
    letter(4, 'h', 43),
    letter(5, 'g', 42),
    letter(6, 'z', 52),
    letter(7, 'x', 53),
    letter(8, 'c', 54),
    letter(9, 'v', 55),
    letter(11, 'b', 56),
    letter(12, 'q', 24),
    letter(13, 'w', 25),
    letter(14, 'e', 26),
    letter(15, 'r', 27),
    letter(16, 'y', 29),
    letter(17, 't', 28),
    character(18, '1', '!', 10),
    character(19, '2', '@', 11),
    character(20, '3', '#', 12),
    character(21, '4', '$', 13),
    character(22, '6', '^', 15),
    character(23, '5', '%', 14),
    character(24, '=', '+', 21),
    character(25, '9', '(', 18),
    character(26, '7', '&', 16),
    character(27, '-', '_', 20),
    character(28, '8', '*', 17),
    character(29, '0', ')', 19),
    character(30, ']', '}', 35),
    letter(31, 'o', 32),
    letter(32, 'u', 30),
    character(33, '[', '{', 34),
    letter(34, 'i', 31),
    letter(35, 'p', 33),
    function(36, XKB_KEY_Return, 36),
    letter(37, 'l', 46),
    letter(38, 'j', 44),
    character(39, '\'', '"', 48),
    letter(40, 'k', 45),
    character(41, ';', ':', 47),
    character(42, '\\', '|', 51),
    character(43, ',', '<', 59),
    character(44, '/', '?', 61),
    letter(45, 'n', 57),
    letter(46, 'm', 58),
    character(47, '.', '>', 60),
    function(48, XKB_KEY_Tab, 23),
    function(49, XKB_KEY_space, 65),
    character(50, '`', '~', 49),
    function(51, XKB_KEY_BackSpace, 22),
    function(53, XKB_KEY_Escape, 9),
    function(96, XKB_KEY_F5, 71),
    function(97, XKB_KEY_F6, 72),
    function(98, XKB_KEY_F7, 73),
    function(99, XKB_KEY_F3, 69),
    function(100, XKB_KEY_F8, 74),
    function(101, XKB_KEY_F9, 75),
    function(103, XKB_KEY_F11, 95),
    function(109, XKB_KEY_F10, 76),
    function(111, XKB_KEY_F12, 96),
    function(115, XKB_KEY_Home, 110),
    function(116, XKB_KEY_Prior, 112),
    function(117, XKB_KEY_Delete, 119),
    function(118, XKB_KEY_F4, 70),
    function(119, XKB_KEY_End, 115),
    function(120, XKB_KEY_F2, 68),
    function(121, XKB_KEY_Next, 117),
    function(122, XKB_KEY_F1, 67),
    function(123, XKB_KEY_Left, 113),
    function(124, XKB_KEY_Right, 114),
    function(125, XKB_KEY_Down, 116),
    function(126, XKB_KEY_Up, 111),
};

}  // namespace

std::optional<KeySymbol> keySymbol(VirtualKey key) {
  const auto* found = std::ranges::find(entries, key, &Entry::key);
  if (found == entries.end()) return std::nullopt;
  return found->symbol;
}

std::optional<xkb_keysym_t> symbolOf(char32_t character) {
  switch (character) {
    case U'\n':
    case U'\r':
      return XKB_KEY_Return;
    case U'\t':
      return XKB_KEY_Tab;
    case U'\b':
      return XKB_KEY_BackSpace;
    case 0x1B:
      return XKB_KEY_Escape;
    case 0x7F:
      return XKB_KEY_Delete;
    default:
      break;
  }
  const bool control = character < 0x20 || (character >= 0x80 && character < 0xA0);
  const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
  const bool noncharacter =
      (character & 0xFFFE) == 0xFFFE || (character >= 0xFDD0 && character <= 0xFDEF);
  if (control || surrogate || noncharacter || character > 0x10FFFF) return std::nullopt;
  return character < 0x100 ? character : 0x01000000U + character;
}

}  // namespace vesko
