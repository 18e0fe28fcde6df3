#include "platform/linux/x11_connection.h"

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/mutex.h"

namespace vesko {
namespace {

constexpr std::chrono::seconds connectPatience{5};

/// A thread of its own opens the connection, because the library waits for the server without a
/// bound. Whoever comes last of the two that share this closes what nobody took.
struct Attempt {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  bool abandoned = false;
  xcb_connection_t* connection = nullptr;
  int screenNumber = 0;
};

// While the server hangs every attempt leaves a thread behind until it wakes.
constexpr int maxAttempts = 8;
std::atomic<int> attempts = 0;

void connectFor(const std::shared_ptr<Attempt>& attempt) {
  int screenNumber = 0;
  xcb_connection_t* connection = nullptr;
  {
    // The library that finds the access cookie keeps its path in a variable of its own.
    static Mutex connecting;
    const MutexLock lock(connecting);
    connection = xcb_connect(nullptr, &screenNumber);
  }
  --attempts;
  const std::lock_guard lock(attempt->mutex);
  if (attempt->abandoned) {
    xcb_disconnect(connection);
    return;
  }
  attempt->connection = connection;
  attempt->screenNumber = screenNumber;
  attempt->finished = true;
  attempt->done.notify_one();
}

}  // namespace

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

xcb_connection_t* openDisplay(int& screenNumber, std::chrono::steady_clock::time_point deadline) {
  if (++attempts > maxAttempts) {
    --attempts;
    return nullptr;
  }
  const auto attempt = std::make_shared<Attempt>();
  try {
    std::thread(connectFor, attempt).detach();
  } catch (const std::system_error&) {
    --attempts;
    return nullptr;
  }
  std::unique_lock lock(attempt->mutex);
  attempt->done.wait_until(lock, deadline, [&attempt] { return attempt->finished; });
  if (!attempt->finished) {
    attempt->abandoned = true;
    return nullptr;
  }
  screenNumber = attempt->screenNumber;
  if (xcb_connection_has_error(attempt->connection) == 0) return attempt->connection;
  xcb_disconnect(attempt->connection);
  return nullptr;
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
  xcb_connection_t* const opened =
      openDisplay(screenNumber, std::chrono::steady_clock::now() + connectPatience);
  if (!opened) return nullptr;
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
