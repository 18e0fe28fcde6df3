#include "control_server/listener.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

namespace vesko {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

/// Accepted before the other connections get their turn.
constexpr int acceptBurst = 64;

bool outOfResources(const error_code& error) {
  switch (error.value()) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return true;
    default:
      return false;
  }
}

/// The connection died in the backlog; the listening socket is well.
bool concernsOneConnection(const error_code& error) {
  return error.value() == ECONNABORTED || error.value() == EPROTO || error.value() == EINTR;
}

}  // namespace

Listener::Listener(asio::io_context& io, Handlers handlers, std::chrono::milliseconds acceptRetry)
    : acceptor_(io.get_executor()),
      retryTimer_(io),
      handlers_(std::move(handlers)),
      acceptRetry_(acceptRetry) {}

std::expected<std::shared_ptr<Listener>, std::string> Listener::open(
    asio::io_context& io, Handlers handlers, std::chrono::milliseconds acceptRetry) {
  std::shared_ptr<Listener> listener(new Listener(io, std::move(handlers), acceptRetry));
  Acceptor& acceptor = listener->acceptor_;
  const asio::ip::tcp::endpoint anyPort(asio::ip::address_v4::loopback(), 0);
  error_code error;
  acceptor.open(anyPort.protocol(), error);
  if (!error && ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC) < 0)
    error.assign(errno, boost::system::system_category());
  // Accepted sockets inherit it.
  if (!error) acceptor.set_option(asio::ip::tcp::no_delay(true), error);
  if (!error) acceptor.non_blocking(true, error);
  if (!error) acceptor.bind(anyPort, error);
  if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) return std::unexpected(error.message());
  return listener;
}

std::uint16_t Listener::port() const {
  error_code error;
  const auto endpoint = acceptor_.local_endpoint(error);
  return error ? std::uint16_t{0} : endpoint.port();
}

void Listener::close() {
  handlers_ = {};
  error_code ignored;
  acceptor_.close(ignored);
  retryTimer_.cancel();
}

void Listener::waitForConnection() {
  acceptor_.async_wait(asio::socket_base::wait_read,
                       [weak = weak_from_this()](const error_code& error) {
                         const auto self = weak.lock();
                         if (!self || !self->acceptor_.is_open()) return;
                         if (error) return self->fail(error);
                         self->acceptAll();
                       });
}

void Listener::acceptAll() {
  for (int i = 0; i < acceptBurst; ++i) {
    StreamSocket socket(acceptor_.get_executor());
    error_code error;
    acceptor_.accept(socket, error);
    if (!error) {
      ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
      socket.non_blocking(true, error);
      if (!error) handlers_.accepted(std::move(socket));
      if (!acceptor_.is_open()) return;
    } else if (error == asio::error::would_block) {
      break;
    } else if (outOfResources(error)) {
      return rest();
    } else if (!concernsOneConnection(error)) {
      return fail(error);
    }
  }
  waitForConnection();
}

void Listener::rest() {
  retryTimer_.expires_after(acceptRetry_);
  retryTimer_.async_wait([weak = weak_from_this()](const error_code& error) {
    const auto self = weak.lock();
    if (!error && self && self->acceptor_.is_open()) self->acceptAll();
  });
}

void Listener::fail(const error_code& error) {
  // The owner closes this listener in the handler, so the handler must not live in it.
  const auto failed = std::move(handlers_.failed);
  failed(error.message());
}

}  // namespace vesko
