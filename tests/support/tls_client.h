// A small blocking TLS client for the control server's tests, plain enough to misbehave on
// purpose. Every read is bounded by a receive time-out. One thread at a time.
#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace vesko::test {

/// A connected TCP socket to 127.0.0.1, or an invalid one.
UniqueFd connectLoopback(std::uint16_t port);

/// Reads to the end of the stream; `clean` tells an end from a reset or a time-out.
std::string readToEnd(int fd, bool* clean = nullptr);

/// Bounds in OpenSSL's terms; 0 leaves OpenSSL's own.
struct TlsVersions {
  int lowest = 0;
  int highest = 0;
};

class TlsClient {
 public:
  explicit TlsClient(std::uint16_t port, TlsVersions versions = {});
  /// Shakes hands over a socket that was connected before.
  explicit TlsClient(UniqueFd socket, TlsVersions versions = {});

  bool connected() const { return connected_; }
  /// OpenSSL's reason code of the failed handshake.
  int failureReason() const { return failureReason_; }
  int version() const { return SSL_version(ssl_.get()); }
  /// SHA-256 of the server's certificate in lower-case hexadecimal.
  std::string peerFingerprint() const;
  std::string peerCertificate() const;  ///< DER

  bool send(std::string_view bytes);
  /// Some bytes; empty at the end and on errors.
  std::string readSome();
  std::string readAll();
  /// True when the last read met the server's close_notify rather than a bare end or a reset.
  bool endedCleanly() const { return endedCleanly_; }

  void closeNotify() { SSL_shutdown(ssl_.get()); }
  void shutdownSending();
  /// Closes with a TCP reset.
  void reset();
  int fd() const { return socket_.get(); }

 private:
  struct Free {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };

  UniqueFd socket_;
  std::unique_ptr<SSL_CTX, Free> context_;
  std::unique_ptr<SSL, Free> ssl_;
  bool connected_ = false;
  bool endedCleanly_ = false;
  int failureReason_ = 0;
};

}  // namespace vesko::test
