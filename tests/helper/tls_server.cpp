#include "helper/tls_server.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <stdexcept>

#include "base/digest.h"

namespace vesko {
namespace {

void require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

/// Gives the context a fresh key and a self-signed certificate, and returns its fingerprint.
std::string installIdentity(SSL_CTX* context) {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const std::unique_ptr<X509, void (*)(X509*)> certificate(X509_new(), X509_free);
  X509_set_version(certificate.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
  X509_set_pubkey(certificate.get(), key.get());
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("test"), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0, "X509_sign");
  require(SSL_CTX_use_certificate(context, certificate.get()) == 1, "use_certificate");
  require(SSL_CTX_use_PrivateKey(context, key.get()) == 1, "use_PrivateKey");
  unsigned char* der = nullptr;
  const int size = i2d_X509(certificate.get(), &der);
  const std::string fingerprint =
      sha256Hex({reinterpret_cast<const std::byte*>(der), static_cast<std::size_t>(size)});
  OPENSSL_free(der);
  return fingerprint;
}

std::size_t bodyLength(std::string_view head) {
  constexpr std::string_view name = "Content-Length: ";
  const auto found = head.find(name);
  std::size_t length = 0;
  if (found != std::string_view::npos)
    std::from_chars(head.data() + found + name.size(), head.data() + head.size(), length);
  return length;
}

}  // namespace

std::string httpAnswer(int status, std::string_view body) {
  return fmt::format(
      "HTTP/1.1 {} Reason\r\nContent-Type: application/json\r\nContent-Length: {}\r\n"
      "Connection: close\r\n\r\n{}",
      status, body.size(), body);
}

std::string TlsServer::Connection::readRequest() {
  std::string request;
  std::array<char, 16384> chunk;
  for (;;) {
    const auto headEnd = request.find("\r\n\r\n");
    if (headEnd != std::string::npos && request.size() >= headEnd + 4 + bodyLength(request)) break;
    const int count = SSL_read(ssl, chunk.data(), chunk.size());
    if (count <= 0) break;
    server->applicationBytes_ += static_cast<std::size_t>(count);
    request.append(chunk.data(), static_cast<std::size_t>(count));
  }
  const std::lock_guard lock(server->mutex_);
  server->requests_.push_back(request);
  return request;
}

void TlsServer::Connection::write(std::string_view bytes) {
  std::size_t written = 0;
  SSL_write_ex(ssl, bytes.data(), bytes.size(), &written);
}

void TlsServer::Connection::waitForPeer() {
  pollfd ready[] = {{.fd = fd, .events = POLLRDHUP, .revents = 0},
                    {.fd = server->stopRead_.get(), .events = POLLIN, .revents = 0}};
  while (::poll(ready, 2, -1) < 0 && errno == EINTR) {
  }
}

void TlsServer::Connection::reset() {
  const linger abort{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
}

TlsServer::TlsServer(Script script, int maxVersion)
    : script_(std::move(script)), context_(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
  fingerprint_ = installIdentity(context_.get());
  SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context_.get(), maxVersion);
  // Old protocol versions need the digests that the default level rules out.
  if (maxVersion != 0) SSL_CTX_set_cipher_list(context_.get(), "DEFAULT@SECLEVEL=0");
  int ends[2];
  require(::pipe(ends) == 0, "pipe");
  stopRead_.reset(ends[0]);
  stopWrite_.reset(ends[1]);
  listener_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  require(::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), size) == 0, "bind");
  require(::listen(listener_.get(), 128) == 0, "listen");
  ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { serve(); });
}

TlsServer::~TlsServer() {
  stopWrite_.reset();
  thread_.join();
  for (std::thread& connection : connections_) connection.join();
}

std::string TlsServer::announcement() const {
  return fmt::format(R"({{"veskokit":"control_server","port":{},"token":"{}","cert_sha256":"{}"}})",
                     port_, token, fingerprint_);
}

void TlsServer::waitForConnections(std::size_t count) {
  std::unique_lock lock(mutex_);
  require(changed_.wait_for(lock, std::chrono::seconds(30), [&] { return ended_ >= count; }),
          "connections did not end");
}

std::vector<std::string> TlsServer::requests() {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void TlsServer::serve() {
  for (;;) {
    pollfd ready[] = {{.fd = listener_.get(), .events = POLLIN, .revents = 0},
                      {.fd = stopRead_.get(), .events = POLLIN, .revents = 0}};
    if (::poll(ready, 2, -1) < 0) continue;
    if (ready[1].revents) return;
    const int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) connections_.emplace_back([this, fd] { serveOne(fd); });
  }
}

void TlsServer::serveOne(int number) {
  const UniqueFd fd(number);
  {
    const std::unique_ptr<SSL, void (*)(SSL*)> ssl(SSL_new(context_.get()), SSL_free);
    SSL_set_fd(ssl.get(), fd.get());
    if (SSL_accept(ssl.get()) == 1) {
      Connection connection;
      connection.server = this;
      connection.ssl = ssl.get();
      connection.fd = fd.get();
      script_(connection);
    }
  }
  const std::lock_guard lock(mutex_);
  ++ended_;
  changed_.notify_all();
}

}  // namespace vesko
