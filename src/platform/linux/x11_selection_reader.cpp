#include "platform/linux/x11_selection_reader.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/utf8.h"

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned propertyCount = 16;
/// All pieces of a long text together, in times of the bound for one.
constexpr int wholeText = 10;

std::string fromLatin1(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char byte : bytes) appendUtf8(text, static_cast<unsigned char>(byte));
  return text;
}

}  // namespace

X11SelectionReader::X11SelectionReader(X11Connection& x11, std::chrono::milliseconds bound,
                                       std::size_t maxBytes)
    : x11_(x11), bound_(bound), maxBytes_(maxBytes), window_(xcb_generate_id(x11.current())) {
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_create_window(x11_.current(), XCB_COPY_FROM_PARENT, window_, x11_.root(), 0, 0, 1, 1, 0,
                    XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
}

X11SelectionReader::~X11SelectionReader() {
  xcb_destroy_window(x11_.current(), window_);
  xcb_flush(x11_.current());
}

std::optional<std::string> X11SelectionReader::clipboardText() {
  const std::array targets{x11_.atom("UTF8_STRING"), x11_.atom("text/plain;charset=utf-8"),
                           xcb_atom_t{XCB_ATOM_STRING}};
  for (const xcb_atom_t target : targets) {
    auto answer = convert(target);
    if (!answer && answer.error() == Failure::refused) continue;
    if (!answer) {
      property_ = (property_ + 1) % propertyCount;
      return std::nullopt;
    }
    // Owners answer in another form than the one they were asked for.
    if (answer->type == XCB_ATOM_STRING) return fromLatin1(answer->bytes);
    if (std::ranges::find(targets, answer->type) == targets.end()) continue;
    if (!isValidUtf8(answer->bytes)) return std::nullopt;
    return std::move(answer->bytes);
  }
  return std::nullopt;
}

std::expected<X11SelectionReader::Answer, X11SelectionReader::Failure> X11SelectionReader::convert(
    xcb_atom_t target) {
  xcb_connection_t* const c = x11_.current();
  const xcb_atom_t property = x11_.atom("VESKO_SELECTION_" + std::to_string(property_));
  xcb_delete_property(c, window_, property);
  xcb_convert_selection(c, window_, x11_.atom("CLIPBOARD"), target, property, XCB_CURRENT_TIME);
  const auto deadline = Clock::now() + bound_;
  while (const auto event = nextEvent(c, deadline)) {
    if (dropLate(*event, property)) continue;
    if ((event->response_type & 0x7F) != XCB_SELECTION_NOTIFY) continue;
    const auto& notify = reinterpret_cast<const xcb_selection_notify_event_t&>(*event);
    if (notify.target != target) continue;
    if (notify.property == XCB_NONE) return std::unexpected(Failure::refused);
    if (notify.property != property) continue;
    auto answer = takeProperty(property);
    if (answer && answer->type == x11_.atom("INCR")) answer = incremental(property);
    if (!answer) return std::unexpected(Failure::broken);
    return std::move(*answer);
  }
  return std::unexpected(Failure::broken);
}

// An owner sends a long text piece by piece and may serve nobody else meanwhile, so an answer that
// was given up is taken all the same once it comes.
bool X11SelectionReader::dropLate(const xcb_generic_event_t& event, xcb_atom_t current) {
  if ((event.response_type & 0x7F) != XCB_PROPERTY_NOTIFY) return false;
  const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
  if (notify.atom == current) return false;
  if (notify.state == XCB_PROPERTY_NEW_VALUE)
    xcb_delete_property(x11_.current(), window_, notify.atom);
  return true;
}

std::optional<X11SelectionReader::Answer> X11SelectionReader::takeProperty(xcb_atom_t property) {
  xcb_connection_t* const c = x11_.current();
  const auto words = static_cast<std::uint32_t>(maxBytes_ / 4 + 1);
  const auto cookie = xcb_get_property(c, 1, window_, property, XCB_ATOM_ANY, 0, words);
  const XcbPtr<xcb_get_property_reply_t> reply(xcb_get_property_reply(c, cookie, nullptr));
  if (!reply || reply->type == XCB_NONE || reply->bytes_after != 0) return std::nullopt;
  if (reply->type == x11_.atom("INCR")) return Answer{reply->type, {}};
  if (reply->format != 8) return std::nullopt;
  const auto* bytes = static_cast<const char*>(xcb_get_property_value(reply.get()));
  return Answer{reply->type, std::string(bytes, reply->value_len)};
}

std::optional<X11SelectionReader::Answer> X11SelectionReader::incremental(xcb_atom_t property) {
  Answer answer;
  const auto end = Clock::now() + wholeText * bound_;
  auto deadline = Clock::now() + bound_;
  // Deleting the property, as reading it did, asks for the next piece; an empty one is the last.
  while (const auto event = nextEvent(x11_.current(), deadline)) {
    if (dropLate(*event, property)) continue;
    if ((event->response_type & 0x7F) != XCB_PROPERTY_NOTIFY) continue;
    const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(*event);
    if (notify.state != XCB_PROPERTY_NEW_VALUE) continue;
    auto piece = takeProperty(property);
    // Nothing there: this was the event of the first property, whose value is long taken.
    if (!piece) continue;
    answer.type = piece->type;
    if (piece->bytes.empty()) return answer;
    if (answer.bytes.size() + piece->bytes.size() > maxBytes_) return std::nullopt;
    answer.bytes += piece->bytes;
    if (Clock::now() >= end) return std::nullopt;
    deadline = std::min(Clock::now() + bound_, end);
  }
  return std::nullopt;
}

}  // namespace vesko
