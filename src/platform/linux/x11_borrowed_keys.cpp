#include "platform/linux/x11_borrowed_keys.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "platform/linux/x11_ping.h"
#include "platform/linux/x11_xkb.h"

namespace vesko {
namespace {

using namespace std::chrono_literals;

/// How long an application may take to get to its events when a place is needed that they use. Long
/// enough for a slow one that works through a long text on a busy machine.
constexpr auto settleBound = 10s;
/// The same for one that has been silent before, and when this object ends.
constexpr auto briefBound = 500ms;
/// How long one that was silent is not asked again.
constexpr auto silence = 10s;
/// One that is still silent this long after the last key no longer keeps its places.
constexpr auto patience = 60s;
/// The same for applications that do not tell: they get this long after the last key.
constexpr auto blindSettle = 300ms;
constexpr std::uint8_t twoLevels = 1;  // the index of the type TWO_LEVEL is fixed by the protocol

XcbPtr<xcb_xkb_get_map_reply_t> getMap(xcb_connection_t* c, std::uint16_t parts) {
  const auto cookie = xcb_xkb_get_map(c, XCB_XKB_ID_USE_CORE_KBD, parts, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                      0, 0, 0, 0, 0, 0, 0);
  return XcbPtr<xcb_xkb_get_map_reply_t>(xcb_xkb_get_map_reply(c, cookie, nullptr));
}

xcb_xkb_get_map_map_t unpack(const xcb_xkb_get_map_reply_t& reply) {
  xcb_xkb_get_map_map_t map{};
  xcb_xkb_get_map_map_unpack(xcb_xkb_get_map_map(&reply), reply.nTypes, reply.nKeySyms,
                             reply.nKeyActions, reply.totalActions, reply.totalKeyBehaviors,
                             reply.virtualMods, reply.totalKeyExplicit, reply.totalModMapKeys,
                             reply.totalVModMapKeys, reply.present, &map);
  return map;
}

bool isTypedSymbol(xkb_keysym_t symbol) {
  return symbol == XKB_KEY_NoSymbol || (symbol >= 0xA0 && symbol < 0x100) || symbol > 0x01000000;
}

void append(std::vector<std::byte>& out, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const std::byte*>(data);
  out.insert(out.end(), bytes, bytes + size);
}

}  // namespace

X11BorrowedKeys::~X11BorrowedKeys() {
  if (!keycodes_.empty() && x11_.get() && x11_.generation() == generation_) giveBack();
}

void X11BorrowedKeys::giveBack() {
  // Whoever comes next takes the keys over; nobody loses text for the sake of tidiness.
  while (!readers_.empty()) {
    if (!settle(readers_.begin()->first, briefBound)) return;
  }
  places_.clear();
  writeMapping();
  xcb_delete_property(x11_.current(), x11_.root(), x11_.atom("VESKO_BORROWED_KEYS"));
  xcb_flush(x11_.current());
}

void X11BorrowedKeys::refresh(const X11Keymap& keymap) {
  thirdLevelMod_ = keymap.thirdLevelMod();
  const bool same =
      generation_ == x11_.generation() && std::ranges::all_of(places_, [&](const Place& place) {
        return keymap.symbolAt(place.keycode, place.level) == place.symbol;
      });
  if (same) return;
  generation_ = x11_.generation();
  places_.clear();
  keycodes_.clear();
  readers_.clear();
}

std::size_t X11BorrowedKeys::capacity() {
  if (places_.empty()) borrow();
  return places_.size();
}

void X11BorrowedKeys::borrow() {
  const auto reply = getMap(x11_.current(), XCB_XKB_MAP_PART_KEY_TYPES | XCB_XKB_MAP_PART_KEY_SYMS |
                                                XCB_XKB_MAP_PART_MODIFIER_MAP);
  if (!reply) return;
  const xcb_xkb_get_map_map_t map = unpack(*reply);

  type_ = {twoLevels, 2};
  auto type = xcb_xkb_get_map_map_types_rtrn_iterator(reply.get(), &map);
  for (unsigned i = reply->firstType; type.rem > 0; ++i, xcb_xkb_key_type_next(&type)) {
    if (thirdLevelMod_ == 0 || type.data->mods_mask != (x11_mods::shift | thirdLevelMod_)) continue;
    unsigned levelsFound = 0;
    auto entry = xcb_xkb_key_type_map_iterator(type.data);
    for (; entry.rem > 0; xcb_xkb_kt_map_entry_next(&entry)) {
      const unsigned mods = entry.data->mods_mask;
      const unsigned level = (mods & x11_mods::shift ? 1U : 0U) + (mods & thirdLevelMod_ ? 2U : 0U);
      if (entry.data->active != 0 && entry.data->level == level) levelsFound |= 1U << level;
    }
    if (type.data->numLevels == 4 && levelsFound == 0b1110) {
      type_ = {static_cast<std::uint8_t>(i), 4};
      break;
    }
  }

  std::array<bool, 256> modifier{};
  auto modmap = xcb_xkb_get_map_map_modmap_rtrn_iterator(reply.get(), &map);
  for (; modmap.rem > 0; xcb_xkb_key_mod_map_next(&modmap)) {
    if (modmap.data->mods != 0) modifier[modmap.data->keycode] = true;
  }
  const std::set<xcb_keycode_t> left = leftOnRoot();
  auto key = xcb_xkb_get_map_map_syms_rtrn_iterator(reply.get(), &map);
  for (unsigned code = reply->firstKeySym; key.rem > 0; ++code, xcb_xkb_key_sym_map_next(&key)) {
    const auto keycode = static_cast<xcb_keycode_t>(code);
    const std::span symbols(xcb_xkb_key_sym_map_syms(key.data), key.data->nSyms);
    const bool unused = std::ranges::all_of(symbols, [](auto s) { return s == XKB_KEY_NoSymbol; });
    const bool taken = left.contains(keycode) && std::ranges::all_of(symbols, isTypedSymbol);
    if (modifier[keycode] || (!unused && !taken)) continue;
    keycodes_.insert(keycode);
    for (unsigned level = 0; level < type_.levels; ++level)
      places_.push_back({keycode, level, XKB_KEY_NoSymbol, 0, {}});
  }
  if (!keycodes_.empty()) rememberOnRoot();
}

void X11BorrowedKeys::rememberOnRoot() {
  std::vector<std::uint32_t> codes(keycodes_.begin(), keycodes_.end());
  xcb_change_property(x11_.current(), XCB_PROP_MODE_REPLACE, x11_.root(),
                      x11_.atom("VESKO_BORROWED_KEYS"), XCB_ATOM_CARDINAL, 32,
                      static_cast<std::uint32_t>(codes.size()), codes.data());
}

std::set<xcb_keycode_t> X11BorrowedKeys::leftOnRoot() {
  const auto cookie = xcb_get_property(x11_.current(), 0, x11_.root(),
                                       x11_.atom("VESKO_BORROWED_KEYS"), XCB_ATOM_CARDINAL, 0, 256);
  const XcbPtr<xcb_get_property_reply_t> reply(
      xcb_get_property_reply(x11_.current(), cookie, nullptr));
  std::set<xcb_keycode_t> result;
  if (!reply || reply->format != 32) return result;
  const auto* codes = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
  for (const std::uint32_t code : std::span(codes, reply->value_len)) {
    if (code < 256) result.insert(static_cast<xcb_keycode_t>(code));
  }
  return result;
}

std::optional<X11Stroke> X11BorrowedKeys::strokeFor(xkb_keysym_t symbol) {
  const auto found = std::ranges::find(places_, symbol, &Place::symbol);
  if (found == places_.end()) return std::nullopt;
  found->lastUse = ++clock_;
  const unsigned mods =
      (found->level & 1U ? x11_mods::shift : 0U) | (found->level & 2U ? thirdLevelMod_ : 0U);
  return X11Stroke{found->keycode, static_cast<std::uint8_t>(mods)};
}

void X11BorrowedKeys::usedIn(xcb_window_t window) {
  for (Place& place : places_) {
    if (place.lastUse > typedUntil_) place.readers.insert(window);
  }
  typedUntil_ = clock_;
  readers_[window] = {Clock::now(), {}};
}

bool X11BorrowedKeys::settle(xcb_window_t window, std::chrono::milliseconds bound) {
  Reader& reader = readers_[window];
  switch (ping(x11_, window, bound)) {
    case PingResult::timedOut: {
      const Clock::time_point now = Clock::now();
      if (now - reader.lastKey < patience) {
        reader.silentUntil = now + silence;
        return false;
      }
      break;
    }
    case PingResult::unsupported:
      std::this_thread::sleep_until(reader.lastKey + blindSettle);
      break;
    case PingResult::answered:
    case PingResult::gone:
      break;
  }
  for (Place& place : places_) place.readers.erase(window);
  readers_.erase(window);
  return true;
}

std::vector<X11BorrowedKeys::Place*> X11BorrowedKeys::reusable(std::size_t count,
                                                               unsigned long usedUntil) {
  std::vector<Place*> candidates;
  for (Place& place : places_) {
    const bool heldUp = std::ranges::any_of(place.readers, [this](xcb_window_t window) {
      return readers_[window].silentUntil > Clock::now();
    });
    if (!heldUp && place.lastUse <= usedUntil) candidates.push_back(&place);
  }
  std::ranges::sort(candidates, {},
                    [](const Place* place) { return std::pair(place->lastUse, place); });
  for (;;) {
    const auto chosen = std::span(candidates).first(std::min(count, candidates.size()));
    const auto read =
        std::ranges::find_if(chosen, [](const Place* place) { return !place->readers.empty(); });
    if (read == chosen.end()) return {chosen.begin(), chosen.end()};
    const xcb_window_t window = *(*read)->readers.begin();
    const bool knownSilent = readers_[window].silentUntil != Clock::time_point();
    if (!settle(window, knownSilent ? briefBound : settleBound))
      std::erase_if(candidates,
                    [&](const Place* place) { return place->readers.contains(window); });
  }
}

std::size_t X11BorrowedKeys::place(std::span<const xkb_keysym_t> symbols) {
  if (capacity() == 0) return 0;
  const unsigned long before = clock_;
  std::vector<xkb_keysym_t> missing;
  for (const xkb_keysym_t symbol : symbols) {
    if (!strokeFor(symbol)) missing.push_back(symbol);
  }
  if (missing.empty()) return symbols.size();

  const std::vector<Place*> chosen = reusable(missing.size(), before);
  for (std::size_t i = 0; i < chosen.size(); ++i) {
    chosen[i]->symbol = missing[i];
    chosen[i]->lastUse = ++clock_;
  }
  if (!chosen.empty() && !writeMapping()) return 0;
  if (chosen.size() == missing.size()) return symbols.size();
  return static_cast<std::size_t>(std::ranges::find(symbols, missing[chosen.size()]) -
                                  symbols.begin());
}

bool X11BorrowedKeys::writeMapping() {
  xcb_connection_t* const c = x11_.current();
  const auto reply = getMap(c, XCB_XKB_MAP_PART_KEY_SYMS);
  if (!reply || keycodes_.empty()) return false;
  const xcb_xkb_get_map_map_t map = unpack(*reply);
  const xcb_keycode_t first = *keycodes_.begin();
  const xcb_keycode_t last = *keycodes_.rbegin();

  // The request takes one range of keys: those in between are sent back as they are.
  std::vector<std::byte> wire;
  unsigned total = 0;
  auto key = xcb_xkb_get_map_map_syms_rtrn_iterator(reply.get(), &map);
  for (unsigned code = reply->firstKeySym; key.rem > 0; ++code, xcb_xkb_key_sym_map_next(&key)) {
    if (code < first || code > last) continue;
    xcb_xkb_key_sym_map_t header = *key.data;
    std::vector<xcb_keysym_t> symbols(xcb_xkb_key_sym_map_syms(key.data),
                                      xcb_xkb_key_sym_map_syms(key.data) + header.nSyms);
    if (keycodes_.contains(static_cast<xcb_keycode_t>(code))) {
      symbols.clear();
      for (const Place& place : places_) {
        if (place.keycode == code) symbols.push_back(place.symbol);
      }
      header = {};
      if (!symbols.empty()) {
        header.kt_index[0] = type_.index;
        header.groupInfo = 1;
      }
      header.width = static_cast<std::uint8_t>(symbols.size());
      header.nSyms = static_cast<std::uint16_t>(symbols.size());
    }
    append(wire, &header, sizeof header);
    append(wire, symbols.data(), symbols.size() * sizeof(xcb_keysym_t));
    total += static_cast<unsigned>(symbols.size());
  }
  const auto cookie = xcb_xkb_set_map_checked(c, XCB_XKB_ID_USE_CORE_KBD, XCB_XKB_MAP_PART_KEY_SYMS,
                                              0, reply->minKeyCode, reply->maxKeyCode, 0, 0, first,
                                              static_cast<std::uint8_t>(last - first + 1),
                                              static_cast<std::uint16_t>(total), 0, 0, 0, 0, 0, 0,
                                              0, 0, 0, 0, 0, 0, 0, 0, 0, 0, wire.data());
  const XcbPtr<xcb_generic_error_t> error(xcb_request_check(c, cookie));
  return !error;
}

}  // namespace vesko
