// Reads a selection of the X server as text.
#pragma once

#include <chrono>
#include <cstddef>
#include <expected>
#include <optional>
#include <string>

#include "platform/linux/x11_connection.h"

namespace vesko {

/// Not synchronised. Borrows the connection, which is open and stays the same one. Its window lives
/// as long as the reader: an owner whose answer was given up may still write to it.
class X11SelectionReader {
 public:
  /// `bound` is the time for each answer of the owner; all pieces of a long text may take ten
  /// times as long.
  X11SelectionReader(X11Connection& x11, std::chrono::milliseconds bound, std::size_t maxBytes);
  ~X11SelectionReader();
  X11SelectionReader(const X11SelectionReader&) = delete;
  X11SelectionReader& operator=(const X11SelectionReader&) = delete;

  /// The clipboard in the first form that its owner offers, as valid UTF-8.
  std::optional<std::string> clipboardText();

 private:
  enum class Failure { refused, broken };
  struct Answer {
    xcb_atom_t type = XCB_ATOM_NONE;
    std::string bytes;
  };

  std::expected<Answer, Failure> convert(xcb_atom_t target);
  std::optional<Answer> takeProperty(xcb_atom_t property);
  std::optional<Answer> incremental(xcb_atom_t property);
  bool dropLate(const xcb_generic_event_t& event, xcb_atom_t current);

  X11Connection& x11_;
  std::chrono::milliseconds bound_;
  std::size_t maxBytes_;
  xcb_window_t window_;
  /// Which property the next answer goes to. Another one after each read that was given up, so
  /// that a late answer never mixes in.
  unsigned property_ = 0;
};

}  // namespace vesko
