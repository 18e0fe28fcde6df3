#include "control_server/control_server.h"

#include <array>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>

#include "base/mutex.h"
#include "control_server/connection.h"
#include "control_server/idle_list.h"
#include "control_server/listener.h"
#include "control_server/tls_stream.h"
#include "control_server/worker_pool.h"

namespace vesko {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

constexpr std::size_t readChunkBytes = 65'536;

}  // namespace

class ControlServer::Core {
 public:
  Core(TlsIdentity identity, TlsContext tls, std::string token, std::vector<Route> routes,
       PermissionProbes& probes, const ControlServerOptions& options)
      : identity_(std::move(identity)),
        tls_(std::move(tls)),
        token_(std::move(token)),
        options_(options),
        router_(std::move(routes), token_, probes),
        io_(1),
        work_(io_.get_executor()),
        restartTimer_(io_),
        idle_(io_, options.idleTimeout),
        services_{.tls = tls_.get(),
                  .idle = idle_,
                  .budgetLimit = options.maxPartialRequestBytes,
                  .readChunk = readChunk_,
                  .serve = [this](Connection& c, HTTPRequest r) { serve(c, std::move(r)); },
                  .closed = [this](Connection& c) { connections_.erase(c.id()); }},
        workers_(options.maxWorkers) {}

  ~Core() { stop(); }

  void start(std::function<void(std::string)> ready, std::function<void(std::string)> failed) {
    onReady_ = std::move(ready);
    onFailure_ = std::move(failed);
    if (cancelled()) return;
    asio::post(io_, [this] { openListener(); });
    try {
      thread_ = std::thread([this] { io_.run(); });
    } catch (const std::system_error& error) {
      onFailure_(error.what());
    }
  }

  void stop() {
    {
      const MutexLock lock(stateLock_);
      if (std::exchange(cancelled_, true)) return;
    }
    if (!thread_.joinable()) return;
    asio::post(io_, [this] { shutDown(); });
    thread_.join();
    workers_.cancel();
  }

  std::optional<std::uint16_t> readyPort() const VESKO_EXCLUDES(stateLock_) {
    const MutexLock lock(stateLock_);
    return readyPort_;
  }

  std::optional<std::string> encodeHandshake(std::uint16_t port) const {
    return json::encode(
        Handshake{.port = port, .token = token_, .certSha256 = identity_.fingerprint});
  }

  const std::string& token() const { return token_; }
  const std::string& fingerprint() const { return identity_.fingerprint; }

 private:
  // Everything from here runs on the I/O thread.

  void openListener() {
    if (cancelled()) return;
    auto opened = Listener::open(io_,
                                 {.accepted = [this](StreamSocket s) { accept(std::move(s)); },
                                  .failed = [this](const std::string& m) { fail(m); }},
                                 options_.acceptRetry);
    if (!opened) return fail(opened.error());
    listener_ = std::move(*opened);
    const std::uint16_t port = listener_->port();
    if (port == 0) return fail("listener became ready without a port");
    const auto handshake = encodeHandshake(port);
    if (!handshake) return fail("could not encode control-server handshake");
    setReadyPort(port);
    listener_->start();
    if (onReady_) onReady_(*handshake);
  }

  bool cancelled() const VESKO_EXCLUDES(stateLock_) {
    const MutexLock lock(stateLock_);
    return cancelled_;
  }

  void setReadyPort(std::optional<std::uint16_t> port) VESKO_EXCLUDES(stateLock_) {
    const MutexLock lock(stateLock_);
    readyPort_ = port;
  }

  void closeAll() {
    if (listener_) listener_->close();
    listener_.reset();
    while (!connections_.empty()) {
      const auto connection = connections_.begin()->second;
      connection->close();
    }
  }

  void fail(const std::string& message) {
    closeAll();
    setReadyPort(std::nullopt);
    if (cancelled()) return;
    if (onFailure_) onFailure_(message);
    restartTimer_.expires_after(options_.restartDelay);
    restartTimer_.async_wait([this](const error_code& error) {
      if (!error) openListener();
    });
  }

  /// Leaves the io_context without work, so that its run() returns.
  void shutDown() {
    closeAll();
    setReadyPort(std::nullopt);
    restartTimer_.cancel();
    idle_.stop();
    work_.reset();
  }

  void accept(StreamSocket socket) {
    const std::uint64_t id = ++lastConnection_;
    const auto connection = std::make_shared<Connection>(services_, std::move(socket), id);
    connections_.emplace(id, connection);
    connection->start();
  }

  void serve(Connection& connection, HTTPRequest request) {
    const auto route = router_.admit(request);
    if (!route) return connection.respond(route.error());
    if ((*route)->runsOn == RunsOn::ioThread)
      return connection.respond(router_.run(**route, request));
    workers_.post([this, route = *route, request = std::move(request),
                   weak = connection.weak_from_this()]() mutable {
      asio::post(io_, [weak = std::move(weak), response = router_.run(*route, request)] {
        if (const auto waiting = weak.lock()) waiting->respond(response);
      });
    });
  }

  const TlsIdentity identity_;
  const TlsContext tls_;
  const std::string token_;
  const ControlServerOptions options_;
  const Router router_;
  std::function<void(std::string)> onReady_;
  std::function<void(std::string)> onFailure_;

  mutable Mutex stateLock_;
  bool cancelled_ VESKO_GUARDED_BY(stateLock_) = false;
  std::optional<std::uint16_t> readyPort_ VESKO_GUARDED_BY(stateLock_);

  std::array<char, readChunkBytes> readChunk_{};
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_;
  asio::steady_timer restartTimer_;
  IdleList idle_;
  ConnectionServices services_;
  std::shared_ptr<Listener> listener_;
  std::unordered_map<std::uint64_t, std::shared_ptr<Connection>> connections_;
  std::uint64_t lastConnection_ = 0;
  std::thread thread_;
  WorkerPool workers_;
};

std::expected<std::unique_ptr<ControlServer>, ControlServerError> ControlServer::create(
    std::vector<Route> routes, PermissionProbes& probes, ControlServerOptions options) {
  auto identity = makeTlsIdentity(std::chrono::system_clock::now());
  if (!identity) return std::unexpected(identity.error());
  auto token = makeBearerToken();
  if (!token) return std::unexpected(token.error());
  TlsContext tls = makeTlsContext(*identity);
  if (!tls) return std::unexpected(ControlServerError::certificateGenerationFailed);
  return std::unique_ptr<ControlServer>(new ControlServer(
      std::make_unique<Core>(std::move(*identity), std::move(tls), std::move(*token),
                             std::move(routes), probes, options)));
}

ControlServer::ControlServer(std::unique_ptr<Core> core) : core_(std::move(core)) {}
ControlServer::~ControlServer() = default;

void ControlServer::start() {
  core_->start(onReady, onFailure);
}
void ControlServer::stop() {
  core_->stop();
}
std::optional<std::uint16_t> ControlServer::readyPort() const {
  return core_->readyPort();
}

std::optional<std::string> ControlServer::handshake() const {
  return readyPort().and_then([this](std::uint16_t port) { return core_->encodeHandshake(port); });
}

const std::string& ControlServer::token() const {
  return core_->token();
}
const std::string& ControlServer::certificateFingerprint() const {
  return core_->fingerprint();
}

}  // namespace vesko
