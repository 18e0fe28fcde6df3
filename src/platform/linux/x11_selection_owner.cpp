#include "platform/linux/x11_selection_owner.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "base/utf8.h"
#include "platform/linux/x11_watch.h"

namespace vesko {
namespace {

using namespace std::chrono_literals;

constexpr auto offerBound = 3s;
constexpr auto endBound = 2s;
/// A client that asks for no further piece this long gets none.
constexpr auto transferBound = 30s;
constexpr std::size_t pieceBytes = std::size_t{256} << 10;

/// Latin-1 as STRING demands it, with a question mark for what it lacks.
std::string toLatin1(std::string_view text) {
  std::string result;
  const auto characters = decodeUtf8(text);
  if (!characters) return result;
  for (const char32_t c : *characters) result.push_back(c < 0x100 ? static_cast<char>(c) : '?');
  return result;
}

}  // namespace

X11SelectionOwner::X11SelectionOwner() {
  connection_ = x11_.get();
  if (!connection_) {
    dead_ = true;
    return;
  }
  const X11Watch watch(connection_);
  window_ = xcb_generate_id(connection_);
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, x11_.root(), 0, 0, 1, 1, 0,
                    XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
  wakeAtom_ = x11_.atom("VESKO_WAKE");
  thread_ = std::thread([this] { run(); });
}

X11SelectionOwner::~X11SelectionOwner() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  if (!thread_.joinable()) return;
  // Its wake-up call comes back from the server.
  const X11Watch watch(connection_, endBound);
  wake();
  thread_.join();
}

bool X11SelectionOwner::alive() const {
  const std::lock_guard lock(mutex_);
  return !dead_;
}

// The thread waits inside xcb; a message to its own window is what it can be reached with.
void X11SelectionOwner::wake() {
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window_;
  message.type = wakeAtom_;
  xcb_send_event(connection_, 0, window_, XCB_EVENT_MASK_NO_EVENT,
                 reinterpret_cast<const char*>(&message));
  xcb_flush(connection_);
}

bool X11SelectionOwner::offer(std::string text) {
  std::unique_lock lock(mutex_);
  if (dead_) return false;
  offered_ = std::make_shared<const std::string>(std::move(text));
  const std::uint64_t number = ++offers_;
  lock.unlock();
  wake();
  lock.lock();
  const bool settled =
      changed_.wait_for(lock, offerBound, [&] { return dead_ || settledOffers_ >= number; });
  return settled && !dead_ && owned_;
}

std::uint64_t X11SelectionOwner::reads() const {
  const std::lock_guard lock(mutex_);
  return reads_;
}

void X11SelectionOwner::awaitReadBeyond(std::uint64_t seen, std::chrono::milliseconds bound) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, bound, [&] { return dead_ || reads_ > seen; });
}

void X11SelectionOwner::countRead() {
  ++reads_;
  changed_.notify_all();
}

void X11SelectionOwner::run() {
  for (;;) {
    const XcbPtr<xcb_generic_event_t> event(xcb_wait_for_event(connection_));
    const std::lock_guard lock(mutex_);
    if (stopping_) return;
    if (!event) break;
    const X11Watch watch(connection_, offerBound);
    handle(*event);
    xcb_flush(connection_);
  }
  const std::lock_guard lock(mutex_);
  dead_ = true;
  changed_.notify_all();
}

void X11SelectionOwner::handle(const xcb_generic_event_t& event) {
  switch (event.response_type & 0x7F) {
    case XCB_CLIENT_MESSAGE:
      askForTime();
      break;
    case XCB_PROPERTY_NOTIFY: {
      const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      if (notify.window != window_)
        sendNextPiece(notify);
      else if (notify.atom == wakeAtom_ && settledOffers_ < offers_)
        own(notify.time);
      break;
    }
    case XCB_SELECTION_REQUEST:
      answer(reinterpret_cast<const xcb_selection_request_event_t&>(event));
      break;
    case XCB_SELECTION_CLEAR:
      // May be older than the latest offer, which took the selection back.
      if (!ownsSelection()) served_.reset();
      break;
    default:
      break;
  }
}

// Owning a selection needs the server's time, which an empty addition to a property brings.
void X11SelectionOwner::askForTime() {
  xcb_change_property(connection_, XCB_PROP_MODE_APPEND, window_, wakeAtom_, XCB_ATOM_STRING, 8, 0,
                      nullptr);
}

void X11SelectionOwner::own(xcb_timestamp_t time) {
  const xcb_atom_t clipboard = x11_.atom("CLIPBOARD");
  xcb_set_selection_owner(connection_, window_, clipboard, time);
  owned_ = ownsSelection();
  if (owned_) {
    served_ = offered_;
    ownedSince_ = time;
  }
  settledOffers_ = offers_;
  changed_.notify_all();
}

bool X11SelectionOwner::ownsSelection() {
  const auto cookie = xcb_get_selection_owner(connection_, x11_.atom("CLIPBOARD"));
  const XcbPtr<xcb_get_selection_owner_reply_t> reply(
      xcb_get_selection_owner_reply(connection_, cookie, nullptr));
  return reply && reply->owner == window_;
}

bool X11SelectionOwner::isTextTarget(xcb_atom_t target) {
  return target == x11_.atom("UTF8_STRING") || target == x11_.atom("text/plain;charset=utf-8") ||
         target == x11_.atom("text/plain") || target == x11_.atom("TEXT");
}

void X11SelectionOwner::answer(const xcb_selection_request_event_t& request) {
  dropStaleTransfers();
  xcb_selection_notify_event_t notify{};
  notify.response_type = XCB_SELECTION_NOTIFY;
  notify.time = request.time;
  notify.requestor = request.requestor;
  notify.selection = request.selection;
  notify.target = request.target;
  // Clients of old leave the property open.
  const xcb_atom_t property = request.property == XCB_NONE ? request.target : request.property;
  const bool current = served_ && (request.time == XCB_CURRENT_TIME ||
                                   static_cast<std::int32_t>(request.time - ownedSince_) >= 0);
  bool done = false;
  if (current && request.requestor != window_ && request.selection == x11_.atom("CLIPBOARD")) {
    done = request.target == x11_.atom("MULTIPLE")
               ? convertMultiple(request)
               : convert(request.requestor, request.target, property);
  }
  notify.property = done ? property : XCB_NONE;
  xcb_send_event(connection_, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT,
                 reinterpret_cast<const char*>(&notify));
}

bool X11SelectionOwner::convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property) {
  if (target == x11_.atom("TARGETS")) {
    const std::array targets{x11_.atom("TARGETS"),
                             x11_.atom("TIMESTAMP"),
                             x11_.atom("MULTIPLE"),
                             x11_.atom("UTF8_STRING"),
                             x11_.atom("text/plain;charset=utf-8"),
                             x11_.atom("text/plain"),
                             x11_.atom("TEXT"),
                             xcb_atom_t{XCB_ATOM_STRING}};
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_ATOM, 32,
                        targets.size(), targets.data());
  } else if (target == x11_.atom("TIMESTAMP")) {
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_INTEGER,
                        32, 1, &ownedSince_);
  } else if (isTextTarget(target)) {
    const xcb_atom_t type = target == x11_.atom("TEXT") ? x11_.atom("UTF8_STRING") : target;
    sendText(requestor, property, type, served_);
  } else if (target == XCB_ATOM_STRING) {
    sendText(requestor, property, target, std::make_shared<const std::string>(toLatin1(*served_)));
  } else {
    return false;
  }
  return true;
}

// The property of the request lists pairs of target and property; refused targets are struck out.
bool X11SelectionOwner::convertMultiple(const xcb_selection_request_event_t& request) {
  if (request.property == XCB_NONE) return false;
  const auto cookie =
      xcb_get_property(connection_, 0, request.requestor, request.property, XCB_ATOM_ANY, 0, 256);
  const XcbPtr<xcb_get_property_reply_t> reply(
      xcb_get_property_reply(connection_, cookie, nullptr));
  if (!reply || reply->format != 32 || reply->value_len % 2 != 0) return false;
  const auto* values = static_cast<const xcb_atom_t*>(xcb_get_property_value(reply.get()));
  std::vector<xcb_atom_t> pairs(values, values + reply->value_len);
  const xcb_atom_t multiple = x11_.atom("MULTIPLE");
  for (std::size_t i = 0; i < pairs.size(); i += 2) {
    if (pairs[i] == multiple || pairs[i + 1] == XCB_NONE ||
        !convert(request.requestor, pairs[i], pairs[i + 1]))
      pairs[i] = XCB_NONE;
  }
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, request.requestor, request.property,
                      reply->type, 32, static_cast<std::uint32_t>(pairs.size()), pairs.data());
  return true;
}

void X11SelectionOwner::sendText(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type,
                                 Text text) {
  if (text->size() <= pieceBytes) {
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, requestor, property, type, 8,
                        static_cast<std::uint32_t>(text->size()), text->data());
    countRead();
    return;
  }
  // Whoever deletes the property asks for the next piece.
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(connection_, requestor, XCB_CW_EVENT_MASK, &events);
  const auto size = static_cast<std::uint32_t>(
      std::min<std::size_t>(text->size(), std::numeric_limits<std::int32_t>::max()));
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, requestor, property, x11_.atom("INCR"),
                      32, 1, &size);
  transfers_.remove_if([&](const Transfer& transfer) {
    return transfer.requestor == requestor && transfer.property == property;
  });
  transfers_.push_back({requestor, property, type, std::move(text), 0, Clock::now()});
}

void X11SelectionOwner::sendNextPiece(const xcb_property_notify_event_t& event) {
  if (event.state != XCB_PROPERTY_DELETE) return;
  const auto transfer = std::ranges::find_if(transfers_, [&](const Transfer& candidate) {
    return candidate.requestor == event.window && candidate.property == event.atom;
  });
  if (transfer == transfers_.end()) return;
  const std::string_view left = std::string_view(*transfer->text).substr(transfer->sent);
  const std::string_view piece = left.substr(0, pieceBytes);
  xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, transfer->requestor, transfer->property,
                      transfer->type, 8, static_cast<std::uint32_t>(piece.size()), piece.data());
  transfer->sent += piece.size();
  transfer->lastMove = Clock::now();
  if (!piece.empty()) return;
  const xcb_window_t requestor = transfer->requestor;
  transfers_.erase(transfer);
  countRead();
  if (std::ranges::find(transfers_, requestor, &Transfer::requestor) == transfers_.end()) {
    const std::uint32_t none = XCB_EVENT_MASK_NO_EVENT;
    xcb_change_window_attributes(connection_, requestor, XCB_CW_EVENT_MASK, &none);
  }
}

void X11SelectionOwner::dropStaleTransfers() {
  const auto oldest = Clock::now() - transferBound;
  transfers_.remove_if([&](const Transfer& transfer) { return transfer.lastMove < oldest; });
}

}  // namespace vesko
