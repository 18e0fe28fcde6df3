#include "support/tls_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <span>

#include "base/digest.h"

namespace vesko::test {

UniqueFd connectLoopback(std::uint16_t port) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return fd;
  const timeval bound{.tv_sec = 30, .tv_usec = 0};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
  const int on = 1;
  ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    fd.reset();
  return fd;
}

std::string readToEnd(int fd, bool* clean) {
  std::string all;
  std::array<char, 16384> chunk{};
  ssize_t count = 0;
  while ((count = ::recv(fd, chunk.data(), chunk.size(), 0)) > 0)
    all.append(chunk.data(), static_cast<std::size_t>(count));
  if (clean) *clean = count == 0;
  return all;
}

TlsClient::TlsClient(std::uint16_t port, TlsVersions versions)
    : TlsClient(connectLoopback(port), versions) {}

TlsClient::TlsClient(UniqueFd socket, TlsVersions versions)
    : socket_(std::move(socket)), context_(SSL_CTX_new(TLS_client_method())) {
  // Old versions need signatures that the default security level forbids; the server is what is
  // to refuse them.
  SSL_CTX_set_cipher_list(context_.get(), "DEFAULT:@SECLEVEL=0");
  SSL_CTX_set_min_proto_version(context_.get(), versions.lowest);
  SSL_CTX_set_max_proto_version(context_.get(), versions.highest);
  ssl_.reset(SSL_new(context_.get()));
  if (!socket_) return;
  SSL_set_fd(ssl_.get(), socket_.get());
  ERR_clear_error();
  connected_ = SSL_connect(ssl_.get()) == 1;
  if (!connected_) failureReason_ = ERR_GET_REASON(ERR_peek_error());
}

std::string TlsClient::peerCertificate() const {
  X509* certificate = SSL_get0_peer_certificate(ssl_.get());
  unsigned char* der = nullptr;
  const int length = certificate ? i2d_X509(certificate, &der) : 0;
  std::string bytes(reinterpret_cast<char*>(der),
                    length > 0 ? static_cast<std::size_t>(length) : 0);
  OPENSSL_free(der);
  return bytes;
}

std::string TlsClient::peerFingerprint() const {
  const std::string der = peerCertificate();
  return sha256Hex(std::as_bytes(std::span(der)));
}

bool TlsClient::send(std::string_view bytes) {
  while (!bytes.empty()) {
    std::size_t sent = 0;
    if (SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &sent) != 1) return false;
    bytes.remove_prefix(sent);
  }
  return true;
}

std::string TlsClient::readSome() {
  std::string chunk(16384, '\0');
  std::size_t count = 0;
  ERR_clear_error();
  const int result = SSL_read_ex(ssl_.get(), chunk.data(), chunk.size(), &count);
  if (result != 1) endedCleanly_ = SSL_get_error(ssl_.get(), result) == SSL_ERROR_ZERO_RETURN;
  chunk.resize(result == 1 ? count : 0);
  return chunk;
}

std::string TlsClient::readAll() {
  std::string all;
  for (std::string chunk = readSome(); !chunk.empty(); chunk = readSome()) all += chunk;
  return all;
}

void TlsClient::shutdownSending() {
  ::shutdown(socket_.get(), SHUT_WR);
}

void TlsClient::reset() {
  const linger abort{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  socket_.reset();
}

}  // namespace vesko::test
