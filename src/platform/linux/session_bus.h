// Applications on the session bus: starting them by name, and asking them to quit.
//
// References: D-Bus Specification 0.41 (org.freedesktop.DBus), Desktop Entry Specification 1.5
// (org.freedesktop.Application), GLib's documented interface org.gtk.Actions.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <expected>
#include <memory>
#include <optional>
#include <string>

struct sd_bus;

namespace vesko {

/// A connection of its own for one request. One thread. Every call returns by its bound.
class SessionBus {
 public:
  struct Failure {
    bool unknownService = false;  ///< nothing on the bus has that name, nor can be started for it
    std::string text = {};        ///< the bus's or the application's own
  };

  /// Nothing when there is no session bus.
  static std::optional<SessionBus> open();

  /// Starts the application when it does not run, and brings it to the front. `id` is a desktop id.
  std::expected<void, Failure> activate(const std::string& id, std::chrono::milliseconds bound);
  /// The process that owns the name.
  std::optional<pid_t> owner(const std::string& name, std::chrono::milliseconds bound);
  /// The process owns a name by which others find it, whichever that is.
  bool offersService(pid_t pid, std::chrono::milliseconds bound);
  /// True when the application has an action to quit and took it.
  bool quit(const std::string& id, std::chrono::milliseconds bound);

 private:
  struct Close {
    void operator()(sd_bus* bus) const;
  };
  explicit SessionBus(sd_bus* bus) : bus_(bus) {}

  std::unique_ptr<sd_bus, Close> bus_;
};

}  // namespace vesko
