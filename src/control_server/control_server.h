// The loopback HTTPS server through which the helper drives this machine: one request a connection,
// bearer token, a certificate to be pinned. Identity and token are made at construction and live
// as long as the server; nothing of them is stored.
//
// Threads: an I/O thread of its own, the queue, owns the listener and all connections and is the
// only one that touches them. Routes run on a few worker threads and their answers are posted back
// to the queue, so a slow tool holds up no other connection. Without connections nothing wakes.
//
// The process ignores SIGPIPE. Each connection takes a file descriptor: the application raises its
// soft limit (RLIMIT_NOFILE) at start; at the limit connections wait in the listener's backlog.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "base/json_record.h"
#include "control_server/router.h"
#include "control_server/tls_identity.h"

namespace vesko {

/// Tells the helper how to reach and recognise the server.
struct Handshake {
  std::string veskokit = "control_server";
  std::uint16_t port = 0;
  std::string token;
  std::string certSha256;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("veskokit", &Handshake::veskokit),
                      json::field("port", &Handshake::port),
                      json::field("token", &Handshake::token),
                      json::field("cert_sha256", &Handshake::certSha256)};
  }
};

struct ControlServerOptions {
  std::chrono::milliseconds idleTimeout{10'000};
  std::chrono::milliseconds restartDelay{1'000};
  std::chrono::milliseconds acceptRetry{100};
  std::int64_t maxPartialRequestBytes = 4'194'304;  ///< of all connections together
  std::size_t maxWorkers = 4;
};

class ControlServer {
 public:
  /// `probes` and all that the routes refer to outlive the server.
  static std::expected<std::unique_ptr<ControlServer>, ControlServerError> create(
      std::vector<Route> routes, PermissionProbes& probes, ControlServerOptions options = {});

  /// Stops, and waits for the tool calls under way: a tool called by a route must not wait for the
  /// thread that destroys the server.
  ~ControlServer();

  /// Set before start(). Called on the queue, or by start() when it fails; they do not wait for the
  /// owner's thread and do not destroy the server. The encoded Handshake, each time a listener is
  /// ready.
  std::function<void(std::string handshake)> onReady;
  /// The listener has failed; a new one, at another port, follows after the restart delay.
  std::function<void(std::string message)> onFailure;

  /// Owner's thread, once.
  void start();

  /// Owner's thread; terminal. Closes every connection. Requests that wait for a worker are
  /// dropped; tool calls under way are not waited for. No callback follows its return.
  void stop();

  /// Any thread. The port of the listener, nothing while there is none.
  std::optional<std::uint16_t> readyPort() const;
  /// Any thread. The encoded Handshake, nothing while there is no listener.
  std::optional<std::string> handshake() const;
  const std::string& token() const;
  const std::string& certificateFingerprint() const;

 private:
  class Core;
  explicit ControlServer(std::unique_ptr<Core> core);

  std::unique_ptr<Core> core_;
};

}  // namespace vesko
