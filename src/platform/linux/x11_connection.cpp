#include "platform/linux/x11_connection.h"

#include <poll.h>

#include <cerrno>

#include "base/mutex.h"

namespace vesko {

XcbPtr<xcb_generic_event_t> nextEvent(xcb_connection_t* connection,
                                      std::chrono::steady_clock::time_point deadline) {
  using Clock = std::chrono::steady_clock;
  xcb_flush(connection);
  for (;;) {
    if (auto* event = xcb_poll_for_event(connection)) return XcbPtr<xcb_generic_event_t>(event);
    if (xcb_connection_has_error(connection) != 0) return nullptr;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return nullptr;
    pollfd readable{xcb_get_file_descriptor(connection), POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(left)) < 0 && errno != EINTR) return nullptr;
  }
}

xcb_connection_t* openDisplay(int& screenNumber) {
  // The library that finds the access cookie keeps its path in a variable of its own.
  static Mutex connecting;
  const MutexLock lock(connecting);
  return xcb_connect(nullptr, &screenNumber);
}

X11Connection::~X11Connection() {
  close();
}

void X11Connection::close() {
  if (connection_) xcb_disconnect(connection_);
  connection_ = nullptr;
  screen_ = nullptr;
  atoms_.clear();
}

xcb_connection_t* X11Connection::get() {
  if (connection_ && xcb_connection_has_error(connection_) == 0) return connection_;
  close();
  int screenNumber = 0;
  xcb_connection_t* opened = openDisplay(screenNumber);
  if (xcb_connection_has_error(opened) != 0) {
    xcb_disconnect(opened);
    return nullptr;
  }
  auto screens = xcb_setup_roots_iterator(xcb_get_setup(opened));
  for (; screens.rem > 0 && screenNumber > 0; --screenNumber) xcb_screen_next(&screens);
  connection_ = opened;
  screen_ = screens.data;
  ++generation_;
  return connection_;
}

xcb_atom_t X11Connection::atom(std::string_view name) {
  const auto [entry, isNew] = atoms_.try_emplace(std::string(name), XCB_ATOM_NONE);
  if (isNew || entry->second == XCB_ATOM_NONE) {
    const auto cookie =
        xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.data());
    const XcbPtr<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(connection_, cookie, nullptr));
    if (reply) entry->second = reply->atom;
  }
  return entry->second;
}

}  // namespace vesko
