// Probes, routes and a running server for the control server's tests.
#pragma once

#include <dirent.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "control_server/control_server.h"
#include "control_server/router.h"
#include "support/tls_client.h"

namespace vesko::test {

struct FixedProbes : PermissionProbes {
  std::atomic<bool> accessibility = true;
  std::atomic<bool> screenCapture = true;
  std::atomic<AutomationStatus> messages = AutomationStatus{AutomationStatus::Kind::unavailable};
  bool accessibilityTrusted() override { return accessibility; }
  bool screenCaptureAllowed() override { return screenCapture; }
  PhotosPermission photos() override { return PhotosPermission::full; }
  AutomationStatus automation(AutomationTarget) override { return messages; }
};

struct Division {
  double a = 0, b = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("a", &Division::a), json::field("b", &Division::b)};
  }
};

struct Quotient {
  double quotient = 0;
  static constexpr auto jsonFields() {
    return std::tuple{json::field("quotient", &Quotient::quotient)};
  }
};

enum class DivisionError { byZero, gone, forbidden, broken };

/// A tool with every kind of outcome, chosen by its numbers.
inline std::expected<Quotient, DivisionError> divide(const Division& request) {
  if (request.b == 0) return std::unexpected(DivisionError::byZero);
  if (request.a == request.b && request.a <= 3)
    return std::unexpected(static_cast<DivisionError>(static_cast<int>(request.a)));
  return Quotient{request.a / request.b};
}

inline HTTPResponse divisionErrorResponse(DivisionError error) {
  switch (error) {
    case DivisionError::byZero:
      return errorResponse(400, "b must not be 0");
    case DivisionError::gone:
      return elementGoneResponse();
    case DivisionError::forbidden:
      return permissionResponse("screen_recording");
    case DivisionError::broken:
      break;
  }
  return errorResponse(500, "broken");
}

inline std::vector<Route> routesWithTools(PermissionProbes& probes) {
  auto routes = coreRoutes(probes);
  routes.push_back(toolRoute<Division>("POST", "/divide", Precondition::accessibility, divide,
                                       divisionErrorResponse));
  routes.push_back(toolRoute<NoBody>(
      "POST", "/rest", Precondition::none,
      [](const NoBody&) -> std::expected<void, DivisionError> { return {}; },
      divisionErrorResponse));
  return routes;
}

/// Texts handed over between threads; taking waits for the next one, with a bound.
class Mailbox {
 public:
  void put(std::string text) {
    const std::lock_guard lock(mutex_);
    texts_.push_back(std::move(text));
    arrived_.notify_all();
  }
  std::optional<std::string> take() {
    std::unique_lock lock(mutex_);
    if (!arrived_.wait_for(lock, std::chrono::seconds(30), [this] { return !texts_.empty(); }))
      return std::nullopt;
    std::string text = std::move(texts_.front());
    texts_.pop_front();
    return text;
  }
  bool empty() {
    const std::lock_guard lock(mutex_);
    return texts_.empty();
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> texts_;
};

/// A started server whose callbacks fill mailboxes.
class RunningServer {
 public:
  explicit RunningServer(ControlServerOptions options = {}, std::vector<Route> more = {}) {
    ::signal(SIGPIPE, SIG_IGN);
    auto routes = routesWithTools(probes);
    for (Route& route : more) routes.push_back(std::move(route));
    auto created = ControlServer::create(std::move(routes), probes, options);
    if (!created) return;
    server = std::move(*created);
    server->onReady = [this](std::string handshake) { ready.put(std::move(handshake)); };
    server->onFailure = [this](std::string message) { failures.put(std::move(message)); };
    server->start();
    firstHandshake = ready.take().value_or("");
    port = server->readyPort().value_or(0);
  }

  std::string request(std::string_view method, std::string_view path, std::string_view body = "") {
    return std::string(method) + " " + std::string(path) + " HTTP/1.1\r\nHost: localhost\r\n" +
           "Authorization: Bearer " + server->token() +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
  }
  /// The whole answer to one request on a connection of its own.
  std::string ask(std::string_view method, std::string_view path, std::string_view body = "") {
    TlsClient client(port);
    client.send(request(method, path, body));
    return client.readAll();
  }

  FixedProbes probes;
  Mailbox ready, failures;
  std::unique_ptr<ControlServer> server;
  std::string firstHandshake;
  std::uint16_t port = 0;
};

/// Of this whole process.
inline std::vector<int> openDescriptors() {
  std::vector<int> all;
  DIR* directory = ::opendir("/proc/self/fd");
  while (const dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] != '.') all.push_back(std::atoi(entry->d_name));
  }
  ::closedir(directory);
  all.pop_back();  // the directory's own
  return all;
}

inline const std::string healthy =
    "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 11\r\n"
    "Connection: close\r\n\r\n{\"ok\":true}";

inline std::string refusal(int status, std::string_view message) {
  return serialize(errorResponse(status, message));
}

}  // namespace vesko::test
