// The connection state shown to the user.
#pragma once

#include <string>
#include <utility>

namespace vesko {

struct Status {
  enum class Kind {
    connected,           ///< the daemon holds the relay connection
    backendUnreachable,  ///< the daemon runs but cannot reach the backend
    error,               ///< a failure that needs the user
    helperUnavailable,   ///< the daemon is missing, could not start or stopped
    needsCode,           ///< no device token and no pairing code
    connecting,          ///< waiting for the daemon to report, also during restarts
    unpairedTakeover,    ///< another Mac took over this pairing
    paused,              ///< the user paused the connection
  };

  Kind kind = Kind::connecting;
  /// connected: the device id; error, helperUnavailable: the message shown; else free.
  std::string text;

  static Status connected(std::string deviceId) { return {Kind::connected, std::move(deviceId)}; }
  static Status backendUnreachable() { return {Kind::backendUnreachable, {}}; }
  static Status error(std::string message) { return {Kind::error, std::move(message)}; }
  static Status helperUnavailable(std::string message) {
    return {Kind::helperUnavailable, std::move(message)};
  }
  static Status needsCode() { return {Kind::needsCode, {}}; }
  static Status connecting() { return {Kind::connecting, {}}; }
  static Status unpairedTakeover() { return {Kind::unpairedTakeover, {}}; }
  static Status paused() { return {Kind::paused, {}}; }

  bool operator==(const Status&) const = default;
};

}  // namespace vesko
