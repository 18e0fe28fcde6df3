// Tools of ours behind a control server in this process, called as the helper calls them.
#pragma once

#include <chrono>
#include <csignal>
#include <expected>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/json_record.h"
#include "control_server/control_server.h"
#include "granted.h"
#include "helper/control_client.h"

namespace vesko::bench {

class PinnedServer {
 public:
  struct Answer {
    json::Value body;
    double milliseconds = 0;  ///< from connecting to the parsed answer
  };

  /// Null when it cannot be started. `probes` outlives it.
  static std::unique_ptr<PinnedServer> start(std::vector<Route> routes, PermissionProbes& probes) {
    std::signal(SIGPIPE, SIG_IGN);
    auto server = ControlServer::create(std::move(routes), probes);
    if (!server) return nullptr;
    std::promise<std::string> handshake;
    (*server)->onReady = [&](std::string line) { handshake.set_value(std::move(line)); };
    (*server)->start();
    const auto endpoint = json::decode<ControlEndpoint>(handshake.get_future().get());
    if (!endpoint) return nullptr;
    return std::unique_ptr<PinnedServer>(new PinnedServer(std::move(*server), *endpoint));
  }

  /// One request over a pinned TLS connection of its own. The error is the refusal's text.
  std::expected<Answer, std::string> post(std::string path, std::string body) {
    const auto begin = std::chrono::steady_clock::now();
    const auto answer = client_.call(endpoint_, {"POST", std::move(path), std::move(body)}, {});
    if (!answer) return std::unexpected(answer.error().message);
    if (answer->status != 200) return std::unexpected(answer->body);
    auto parsed = json::parse(answer->body, 8192);
    if (!parsed) return std::unexpected(parsed.error());
    const auto end = std::chrono::steady_clock::now();
    return Answer{std::move(*parsed),
                  std::chrono::duration<double, std::milli>(end - begin).count()};
  }

 private:
  PinnedServer(std::unique_ptr<ControlServer> server, ControlEndpoint endpoint)
      : server_(std::move(server)), endpoint_(std::move(endpoint)) {}

  std::unique_ptr<ControlServer> server_;
  ControlEndpoint endpoint_;
  ControlClient client_;
};

}  // namespace vesko::bench
