#include "tools/key_table.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "base/text.h"

namespace vesko {
namespace {

struct NamedKey {
  std::string_view name;
  VirtualKey key;
};

constexpr std::array keys{
    NamedKey{"a", 0},
    NamedKey{"s", 1},
    NamedKey{"d", 2},
    NamedKey{"f", 3},
    NamedKey{"h", 4},
    NamedKey{"g", 5},
    NamedKey{"z", 6},
    NamedKey{"x", 7},
    NamedKey{"c", 8},
    NamedKey{"v", 9},
    NamedKey{"b", 11},
    NamedKey{"q", 12},
    NamedKey{"w", 13},
    NamedKey{"e", 14},
    NamedKey{"r", 15},
    NamedKey{"y", 16},
    NamedKey{"t", 17},
    NamedKey{"1", 18},
    NamedKey{"2", 19},
    NamedKey{"3", 20},
    NamedKey{"4", 21},
    NamedKey{"6", 22},
    NamedKey{"5", 23},
    NamedKey{"=", 24},
    NamedKey{"9", 25},
    NamedKey{"7", 26},
    NamedKey{"-", 27},
    NamedKey{"8", 28},
    NamedKey{"0", 29},
    NamedKey{"]", 30},
    NamedKey{"o", 31},
    NamedKey{"u", 32},
    NamedKey{"[", 33},
    NamedKey{"i", 34},
    NamedKey{"p", 35},
    NamedKey{"return", 36},
    NamedKey{"l", 37},
    NamedKey{"j", 38},
    NamedKey{"'", 39},
    NamedKey{"k", 40},
    NamedKey{";", 41},
    NamedKey{"\\", 42},
    NamedKey{",", 43},
    NamedKey{"/", 44},
    NamedKey{"n", 45},
    NamedKey{"m", 46},
    NamedKey{".", 47},
    NamedKey{"tab", 48},
    NamedKey{"space", 49},
    NamedKey{"`", 50},
    NamedKey{"delete", 51},
    NamedKey{"escape", 53},
    NamedKey{"f5", 96},
    NamedKey{"f6", 97},
    NamedKey{"f7", 98},
    NamedKey{"f3", 99},
    NamedKey{"f8", 100},
    NamedKey{"f9", 101},
    NamedKey{"f11", 103},
    NamedKey{"f10", 109},
    NamedKey{"f12", 111},
    NamedKey{"home", 115},
    NamedKey{"page_up", 116},
    NamedKey{"forward_delete", 117},
    NamedKey{"f4", 118},
    NamedKey{"end", 119},
    NamedKey{"f2", 120},
    NamedKey{"page_down", 121},
    NamedKey{"f1", 122},
    NamedKey{"arrow_left", 123},
    NamedKey{"arrow_right", 124},
    NamedKey{"arrow_down", 125},
    NamedKey{"arrow_up", 126},
};
static_assert(keys.size() == 73);

// The character at an even position is typed as the one after it, with shift.
constexpr std::string_view shifted = "!1@2#3$4%5^6&7*8(9)0_-+={[}]|\\:;\"'<,>.?/~`";
static_assert(shifted.size() == 42);

constexpr std::array modifiers{
    std::pair{std::string_view("command"), key_flags::command},
    std::pair{std::string_view("shift"), key_flags::shift},
    std::pair{std::string_view("option"), key_flags::option},
    std::pair{std::string_view("control"), key_flags::control},
};

}  // namespace

std::optional<KeyStroke> keyNamed(std::string_view name) {
  std::string wanted = lowerAscii(trim(name));
  std::uint32_t flags = 0;
  if (wanted.size() == 1) {
    const auto at = shifted.find(wanted[0]);
    if (at != std::string_view::npos && at % 2 == 0) {
      wanted = shifted[at + 1];
      flags = key_flags::shift;
    }
  }
  const auto* found = std::ranges::find(keys, wanted, &NamedKey::name);
  if (found == keys.end()) return std::nullopt;
  return KeyStroke{found->key, flags};
}

std::optional<std::uint32_t> modifierNamed(std::string_view name) {
  for (const auto& [word, flag] : modifiers) {
    if (word == name) return flag;
  }
  return std::nullopt;
}

}  // namespace vesko
