// Owns the CLIPBOARD selection with a text and serves it to other clients.
#pragma once

#include <xcb/xcb.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "platform/linux/x11_connection.h"

namespace vesko {

/// A connection and a thread that waits for its events; the text changes from any thread. Texts
/// too long for one property go out in pieces, several at a time, also after the ownership is lost.
class X11SelectionOwner {
 public:
  X11SelectionOwner();
  /// The selection is gone with its owner.
  ~X11SelectionOwner();
  X11SelectionOwner(const X11SelectionOwner&) = delete;
  X11SelectionOwner& operator=(const X11SelectionOwner&) = delete;

  /// False once the display is gone; make another one then.
  bool alive() const;

  /// Returns when the selection is owned with this text; false when it could not be had in time.
  bool offer(std::string text);

  /// How many times a whole text was handed over.
  std::uint64_t reads() const;
  /// Waits until reads() is beyond `seen`, the display is gone or `bound` has passed.
  void awaitReadBeyond(std::uint64_t seen, std::chrono::milliseconds bound);

 private:
  using Text = std::shared_ptr<const std::string>;
  using Clock = std::chrono::steady_clock;

  /// A long text on its way to one client.
  struct Transfer {
    xcb_window_t requestor = XCB_NONE;
    xcb_atom_t property = XCB_NONE;
    xcb_atom_t type = XCB_NONE;
    Text text;
    std::size_t sent = 0;
    Clock::time_point lastMove;
  };

  void run();
  void handle(const xcb_generic_event_t& event);
  void wake();
  void askForTime();
  void own(xcb_timestamp_t time);
  bool ownsSelection();
  void answer(const xcb_selection_request_event_t& request);
  bool convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property);
  bool convertMultiple(const xcb_selection_request_event_t& request);
  void sendText(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type, Text text);
  void sendNextPiece(const xcb_property_notify_event_t& event);
  void dropStaleTransfers();
  void countRead();
  bool isTextTarget(xcb_atom_t target);

  // Of the thread, but for sending and for what is set before it starts.
  X11Connection x11_;
  xcb_connection_t* connection_ = nullptr;
  xcb_window_t window_ = XCB_NONE;
  xcb_atom_t wakeAtom_ = XCB_NONE;
  Text served_;
  xcb_timestamp_t ownedSince_ = 0;
  std::list<Transfer> transfers_;

  // std types: the condition variable needs them.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Text offered_;
  std::uint64_t offers_ = 0;
  std::uint64_t settledOffers_ = 0;
  std::uint64_t reads_ = 0;
  bool owned_ = false;
  bool stopping_ = false;
  bool dead_ = false;

  std::thread thread_;
};

}  // namespace vesko
