#include "helper/control_client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "base/digest.h"
#include "base/unique_fd.h"

namespace vesko {
namespace {

using Clock = std::chrono::steady_clock;
using Kind = ControlCallError::Kind;
using Outcome = std::expected<void, ControlCallError>;

std::unexpected<ControlCallError> failure(Kind kind, std::string message) {
  return std::unexpected(ControlCallError{kind, std::move(message)});
}

bool isVisibleAscii(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c > ' ' && c <= '~'; });
}

struct FreeSsl {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
struct FreeCertificate {
  void operator()(X509* certificate) const { X509_free(certificate); }
};

/// Empty when the peer showed no certificate.
std::string peerFingerprint(const SSL* ssl) {
  const std::unique_ptr<X509, FreeCertificate> leaf(SSL_get1_peer_certificate(ssl));
  std::array<std::byte, 32> digest{};
  unsigned length = 0;
  if (!leaf || X509_digest(leaf.get(), EVP_sha256(),
                           reinterpret_cast<unsigned char*>(digest.data()), &length) != 1)
    return {};
  return hexLower(digest);
}

/// One connection. Every wait ends with the socket, the deadline or the cancellation.
class Connection {
 public:
  Connection(SSL_CTX* context, int cancelFd) : ssl_(SSL_new(context)), cancelFd_(cancelFd) {}

  void setDeadline(std::chrono::milliseconds limit) { deadline_ = Clock::now() + limit; }

  Outcome open(std::uint16_t port) {
    socket_.reset(::socket(AF_INET, SOCK_STREAM, 0));
    if (!socket_ || ::fcntl(socket_.get(), F_SETFD, FD_CLOEXEC) != 0 ||
        ::fcntl(socket_.get(), F_SETFL, O_NONBLOCK) != 0)
      return failure(Kind::unreachable, fmt::format("no socket: {}", std::strerror(errno)));
    // The request follows the last message of the handshake, which the server does not answer:
    // without this it would wait for that message's delayed acknowledgement, 40 ms.
    const int noDelay = 1;
    ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      return {};
    if (errno == EINPROGRESS || errno == EINTR) {
      if (auto waited = wait(POLLOUT); !waited) return waited;
      int error = 0;
      socklen_t size = sizeof error;
      ::getsockopt(socket_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
      if (error == 0) return {};
      errno = error;
    }
    return failure(
        Kind::unreachable,
        fmt::format("the companion's control server is not reachable: {}", std::strerror(errno)));
  }

  Outcome handshake(std::string_view expectedFingerprint) {
    if (!ssl_ || SSL_set_fd(ssl_.get(), socket_.get()) != 1)
      return failure(Kind::unreachable, "no TLS connection could be prepared");
    for (;;) {
      const int result = step([&] { return SSL_connect(ssl_.get()); });
      if (result == 1) break;
      if (auto waited = waitFor(result); !waited) {
        if (waited.error().kind == Kind::badAnswer)
          return failure(Kind::unreachable, "the TLS handshake with the control server failed");
        return waited;
      }
    }
    if (!constantTimeEqual(peerFingerprint(ssl_.get()), expectedFingerprint))
      return failure(Kind::untrusted,
                     "the control server's certificate is not the one that the companion "
                     "announced; nothing was sent to it");
    return {};
  }

  Outcome send(std::string_view bytes) {
    while (!bytes.empty()) {
      std::size_t written = 0;
      const int result =
          step([&] { return SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &written); });
      if (result == 1) {
        bytes.remove_prefix(written);
      } else if (auto waited = waitFor(result); !waited) {
        return waited;
      }
    }
    return {};
  }

  std::expected<HttpResponse, ControlCallError> receive(std::size_t maxBytes) {
    HttpResponseReader reader(maxBytes);
    std::array<char, 65536> chunk;
    for (;;) {
      std::size_t count = 0;
      const int result =
          step([&] { return SSL_read_ex(ssl_.get(), chunk.data(), chunk.size(), &count); });
      if (result != 1) {
        if (auto waited = waitFor(result); !waited) return std::unexpected(waited.error());
        continue;
      }
      switch (reader.feed({chunk.data(), count})) {
        case HttpResponseReader::State::incomplete:
          break;
        case HttpResponseReader::State::complete:
          return reader.take();
        case HttpResponseReader::State::malformed:
          return failure(Kind::badAnswer, "the control server's answer is malformed");
        case HttpResponseReader::State::tooLarge:
          return failure(Kind::badAnswer, "the control server's answer is too large");
      }
    }
  }

 private:
  template <class Call>
  static int step(Call call) {
    ERR_clear_error();
    return call();
  }

  /// After a TLS call that did not succeed: waits for what it needs, or says why it cannot go on.
  Outcome waitFor(int result) {
    switch (SSL_get_error(ssl_.get(), result)) {
      case SSL_ERROR_WANT_READ:
        return wait(POLLIN);
      case SSL_ERROR_WANT_WRITE:
        return wait(POLLOUT);
      default:
        ERR_clear_error();
        return failure(Kind::badAnswer,
                       "the control server ended the connection before its answer was complete");
    }
  }

  Outcome wait(short events) {
    for (;;) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now());
      if (left.count() <= 0)
        return failure(Kind::timedOut, "the control server did not answer in time");
      pollfd ready[] = {{.fd = socket_.get(), .events = events, .revents = 0},
                        {.fd = cancelFd_, .events = POLLIN, .revents = 0}};
      const int count =
          ::poll(ready, 2, static_cast<int>(std::min<std::int64_t>(left.count(), 1 << 30)));
      if (count < 0 && errno != EINTR)
        return failure(Kind::unreachable, fmt::format("poll failed: {}", std::strerror(errno)));
      if (count <= 0) continue;
      if (ready[1].revents != 0) return failure(Kind::cancelled, "the helper is shutting down");
      return {};
    }
  }

  UniqueFd socket_;
  std::unique_ptr<SSL, FreeSsl> ssl_;
  int cancelFd_;
  Clock::time_point deadline_;
};

}  // namespace

bool ControlEndpoint::usable() const {
  return port != 0 && !token.empty() && isVisibleAscii(token) && certificateSha256.size() == 64 &&
         certificateSha256.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool ControlRequest::wellFormed() const {
  return !method.empty() &&
         std::ranges::all_of(method, [](char c) { return c >= 'A' && c <= 'Z'; }) &&
         path.starts_with('/') && isVisibleAscii(path);
}

ControlClient::ControlClient() : context_(SSL_CTX_new(TLS_client_method())) {
  if (!context_) return;
  SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION);
  // The chain means nothing here; the fingerprint is compared once the peer has proved its key.
  SSL_CTX_set_verify(context_.get(), SSL_VERIFY_NONE, nullptr);
  SSL_CTX_set_session_cache_mode(context_.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_mode(context_.get(),
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

std::expected<HttpResponse, ControlCallError> ControlClient::call(const ControlEndpoint& endpoint,
                                                                  const ControlRequest& request,
                                                                  const ControlDeadlines& deadlines,
                                                                  int cancelFd) const {
  if (!context_) return failure(Kind::unreachable, "TLS is not available");
  Connection connection(context_.get(), cancelFd);
  connection.setDeadline(deadlines.connect);
  if (auto opened = connection.open(endpoint.port); !opened) return std::unexpected(opened.error());
  if (auto trusted = connection.handshake(endpoint.certificateSha256); !trusted)
    return std::unexpected(trusted.error());
  connection.setDeadline(deadlines.answer);
  std::string message = fmt::format(
      "{} {} HTTP/1.1\r\nHost: 127.0.0.1:{}\r\nAuthorization: Bearer {}\r\n"
      "Connection: close\r\n",
      request.method, request.path, endpoint.port, endpoint.token);
  if (!request.body.empty())
    message += fmt::format("Content-Type: application/json\r\nContent-Length: {}\r\n",
                           request.body.size());
  message += "\r\n";
  message += request.body;
  // A server that refuses a request early answers and closes before it has read everything; its
  // answer says more than the failed write does.
  if (auto sent = connection.send(message); !sent && sent.error().kind != Kind::badAnswer)
    return std::unexpected(sent.error());
  return connection.receive(maxAnswerBytes);
}

}  // namespace vesko
