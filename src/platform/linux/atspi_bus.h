// The way to the accessibility bus: asks the session for it, turns accessibility on, and keeps
// connections between requests.
//
// Nothing is subscribed to, so that an idle connection delivers nothing. While it stands, some
// applications keep their lists of elements up to date for it, so one is kept for a short while
// only; a thread that lives no longer than that closes it.
#pragma once

#include <chrono>
#include <memory>

#include "base/kept_for_next.h"
#include "platform/linux/dbus_connection.h"

namespace vesko {

/// Names on the accessibility bus.
namespace atspi {
inline constexpr std::string_view registry = "org.a11y.atspi.Registry";
inline constexpr std::string_view rootPath = "/org/a11y/atspi/accessible/root";
inline constexpr std::string_view nullPath = "/org/a11y/atspi/null";
}  // namespace atspi

/// A connection that is one session's.
struct AtspiConnection {
  std::unique_ptr<DBusConnection> bus;
  /// Accessibility was off until now: applications are only just coming.
  bool justEnabled = false;
};

/// Any thread.
class AtspiBus {
 public:
  using Clock = std::chrono::steady_clock;

  explicit AtspiBus(std::chrono::milliseconds keepFor);

  /// No bus when the session has none or it does not answer in time.
  AtspiConnection acquire(Clock::time_point deadline);
  void takeBack(std::unique_ptr<DBusConnection> bus);

 private:
  KeptForNext<DBusConnection> kept_;
};

}  // namespace vesko
