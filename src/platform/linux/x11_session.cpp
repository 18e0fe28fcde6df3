#include "platform/linux/x11_session.h"

#include <poll.h>
#include <xcb/randr.h>
#include <xcb/res.h>
#include <xcb/xcbext.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "platform/linux/x11_watch.h"

namespace vesko {
namespace {

using Clock = X11Session::Clock;

constexpr std::array<std::string_view, static_cast<std::size_t>(XAtom::count)> atomNames{
    "_GTK_APPLICATION_ID",
    "_GTK_FRAME_EXTENTS",
    "_NET_ACTIVE_WINDOW",
    "_NET_CLIENT_LIST",
    "_NET_CLIENT_LIST_STACKING",
    "_NET_FRAME_EXTENTS",
    "_NET_MOVERESIZE_WINDOW",
    "_NET_SUPPORTED",
    "_NET_SUPPORTING_WM_CHECK",
    "_NET_WM_ACTION_FULLSCREEN",
    "_NET_WM_ACTION_MINIMIZE",
    "_NET_WM_ACTION_MOVE",
    "_NET_WM_ACTION_RESIZE",
    "_NET_WM_ALLOWED_ACTIONS",
    "_NET_WM_NAME",
    "_NET_WM_PID",
    "_NET_WM_STATE",
    "_NET_WM_STATE_FULLSCREEN",
    "_NET_WM_STATE_HIDDEN",
    "_NET_WM_STATE_MAXIMIZED_HORZ",
    "_NET_WM_STATE_MAXIMIZED_VERT",
    "_NET_WM_STATE_MODAL",
    "_NET_WM_WINDOW_TYPE",
    "_NET_WM_WINDOW_TYPE_COMBO",
    "_NET_WM_WINDOW_TYPE_DESKTOP",
    "_NET_WM_WINDOW_TYPE_DND",
    "_NET_WM_WINDOW_TYPE_DOCK",
    "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU",
    "_NET_WM_WINDOW_TYPE_MENU",
    "_NET_WM_WINDOW_TYPE_NOTIFICATION",
    "_NET_WM_WINDOW_TYPE_POPUP_MENU",
    "_NET_WM_WINDOW_TYPE_TOOLTIP",
    "UTF8_STRING",
    "WM_CHANGE_STATE",
    "WM_DELETE_WINDOW",
    "WM_PROTOCOLS",
    "WM_STATE",
};
static_assert(!atomNames.back().empty());

std::unique_ptr<X11Session> openSession(Clock::time_point deadline) {
  int screenNumber = 0;
  xcb_connection_t* const connection = openDisplay(screenNumber, deadline);
  if (!connection) return nullptr;
  auto session = std::make_unique<X11Session>(connection, screenNumber);
  session->setDeadline(deadline);
  {
    // Asked here because the library waits for these answers without a bound, once.
    const X11Watch watch(connection, std::chrono::ceil<std::chrono::milliseconds>(
                                         std::max(deadline - Clock::now(), Clock::duration{})));
    for (xcb_extension_t* extension : {&xcb_res_id, &xcb_randr_id})
      xcb_get_extension_data(connection, extension);
  }
  return session->internAtoms() ? std::move(session) : nullptr;
}

}  // namespace

X11Session::X11Session(xcb_connection_t* connection, int screenNumber) : connection_(connection) {
  auto screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (; screens.rem > 1 && screenNumber > 0; --screenNumber) xcb_screen_next(&screens);
  screen_ = screens.data;
}

X11Session::~X11Session() {
  xcb_disconnect(connection_);
}

bool X11Session::internAtoms() {
  std::array<xcb_intern_atom_cookie_t, atomNames.size()> cookies{};
  for (std::size_t i = 0; i < atomNames.size(); ++i)
    cookies[i] = xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(atomNames[i].size()),
                                 atomNames[i].data());
  for (std::size_t i = 0; i < atomNames.size(); ++i) {
    const auto reply = wait<xcb_intern_atom_reply_t>(cookies[i]);
    if (!reply) return false;
    atoms_[i] = reply->atom;
  }
  return true;
}

bool X11Session::broken() const {
  return late_ || xcb_connection_has_error(connection_) != 0;
}

void* X11Session::waitFor(unsigned sequence) {
  if (broken()) return nullptr;
  xcb_flush(connection_);
  for (;;) {
    void* reply = nullptr;
    xcb_generic_error_t* error = nullptr;
    if (xcb_poll_for_reply(connection_, sequence, &reply, &error) != 0) {
      std::free(error);
      return reply;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
    if (left <= 0) {
      late_ = true;
      return nullptr;
    }
    pollfd readable{xcb_get_file_descriptor(connection_), POLLIN, 0};
    ::poll(&readable, 1, static_cast<int>(left));
  }
}

XcbPtr<xcb_generic_event_t> X11Session::event(Clock::time_point until) {
  if (broken()) return nullptr;
  return nextEvent(connection_, std::min(until, deadline_));
}

X11Sessions::Lease X11Sessions::borrow(Clock::time_point deadline) {
  std::unique_ptr<X11Session> session;
  {
    const MutexLock lock(mutex_);
    session = std::move(idle_);
  }
  // One that broke while nobody used it, as when the server was restarted, shows at the first use.
  if (session) {
    session->setDeadline(deadline);
    xcb_connection_t* const c = session->connection();
    if (!session->wait<xcb_get_input_focus_reply_t>(xcb_get_input_focus(c))) session.reset();
  }
  if (!session) session = openSession(deadline);
  return {*this, std::move(session)};
}

X11Sessions::Lease::~Lease() {
  if (!session_ || !session_->reusable()) return;
  const MutexLock lock(owner_->mutex_);
  owner_->idle_ = std::move(session_);
}

}  // namespace vesko
