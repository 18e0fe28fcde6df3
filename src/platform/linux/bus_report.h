// What the services of the session bus offer, asked of those that run already. Any thread.
//
// The interfaces: org.freedesktop.DBus of the D-Bus specification, org.a11y.Bus of AT-SPI, and the
// Secret Service API of freedesktop.org.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/dbus_connection.h"

namespace vesko {

enum class ServiceState {
  running,
  startable,  ///< the bus starts it for whoever calls it
  absent,
};

struct AccessibilityReport {
  ServiceState launcher = ServiceState::absent;  ///< what starts the accessibility bus
  // Of a running launcher:
  bool answers = false;  ///< there is an accessibility bus that takes clients
  bool enabled = false;  ///< applications are asked to tell of themselves
  int applications = 0;  ///< that do
};

struct KeyringReport {
  ServiceState service = ServiceState::absent;
  // Of a running service:
  bool answers = false;
  bool hasCollection = false;  ///< one to put new secrets into
  bool locked = false;         ///< that one
};

/// One connection to the session bus. A service that stops answering is given up by the time.
class SessionBus {
 public:
  using Clock = DBusConnection::Clock;

  /// Nothing when there is no bus or it does not take us in time.
  static std::optional<SessionBus> connect(Clock::time_point deadline);

  /// Asking the launcher for the accessibility bus may start that one.
  AccessibilityReport accessibility();
  KeyringReport keyring();

 private:
  SessionBus(std::unique_ptr<DBusConnection> bus, Clock::time_point deadline)
      : bus_(std::move(bus)), deadline_(deadline) {}

  ServiceState stateOf(std::string_view name);

  std::unique_ptr<DBusConnection> bus_;
  Clock::time_point deadline_;
};

}  // namespace vesko
