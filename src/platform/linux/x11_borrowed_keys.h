// Gives characters that the keyboard layout lacks a place on its unused keys.
//
// A place stays as it is until another character needs it, so an application that reads the mapping
// late still finds the right symbols there. Places are changed in batches, one request each, since
// every change makes all applications read the mapping anew. A place is only changed once the
// windows that were typed into through it have worked through their events. While one of them
// hangs, the other places serve everybody else; one that hangs for long loses its places.
// Reference: X Keyboard Extension protocol, SetMap.
#pragma once

#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "platform/linux/x11_connection.h"
#include "platform/linux/x11_keymap.h"

namespace vesko {

/// Not synchronised. Borrows the connection. Keys that a run which ended badly left behind are
/// taken over: their list is a property of the root window.
class X11BorrowedKeys {
 public:
  explicit X11BorrowedKeys(X11Connection& x11) : x11_(x11) {}
  X11BorrowedKeys(const X11BorrowedKeys&) = delete;
  X11BorrowedKeys& operator=(const X11BorrowedKeys&) = delete;
  /// Gives the keys back, unless an application still has to read them.
  ~X11BorrowedKeys();

  const std::set<xcb_keycode_t>& keycodes() const { return keycodes_; }

  /// Call before typing: notes what the mapping holds now (somebody else may have loaded another).
  void refresh(const X11Keymap& keymap);

  /// How many different symbols fit at once; 0 when there is no key to borrow. Borrows the keys.
  std::size_t capacity();

  /// Where the symbol is, if it has a place; the place is now the last to be given away.
  std::optional<X11Stroke> strokeFor(xkb_keysym_t symbol);

  /// Gives them a place; at most `capacity()` symbols. Returns how many of the first ones now have
  /// one: fewer when applications that do not get to their events hold places up, 0 also when the
  /// server refused.
  std::size_t place(std::span<const xkb_keysym_t> symbols);

  /// The window that was typed into through the places asked for since the last call.
  void usedIn(xcb_window_t window);

 private:
  using Clock = std::chrono::steady_clock;

  struct Place {
    xcb_keycode_t keycode = 0;
    unsigned level = 0;
    xkb_keysym_t symbol = XKB_KEY_NoSymbol;
    unsigned long lastUse = 0;
    /// May still have to read the symbol.
    std::set<xcb_window_t> readers;
  };

  struct Reader {
    Clock::time_point lastKey;
    /// Its places are left alone until then: it did not answer when it was asked last.
    Clock::time_point silentUntil;
  };

  /// A key type with levels for shift and the third-level modifier, as indices of the server.
  struct LevelType {
    std::uint8_t index = 0;
    unsigned levels = 1;
  };

  void borrow();
  void giveBack();
  std::vector<Place*> reusable(std::size_t count, unsigned long usedUntil);
  bool settle(xcb_window_t window, std::chrono::milliseconds bound);
  bool writeMapping();
  void rememberOnRoot();
  std::set<xcb_keycode_t> leftOnRoot();

  X11Connection& x11_;
  unsigned generation_ = 0;
  std::set<xcb_keycode_t> keycodes_;
  std::vector<Place> places_;
  std::uint8_t thirdLevelMod_ = 0;
  LevelType type_;
  unsigned long clock_ = 0;
  unsigned long typedUntil_ = 0;
  std::map<xcb_window_t, Reader> readers_;
};

}  // namespace vesko
