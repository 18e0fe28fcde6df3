// Server-side TLS 1.2 and 1.3 over a non-blocking socket, without threads or waiting of its own:
// every call does what can be done now and says what it waits for. Output is collected and handed
// to the socket by flush(), so that one system call carries what belongs together.
#pragma once

#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "control_server/tls_identity.h"

namespace vesko {

using TlsContext = std::unique_ptr<SSL_CTX, OpenSSLDeleter<SSL_CTX, SSL_CTX_free>>;

/// Null when OpenSSL refuses the identity. No resumption: a connection carries one request, and
/// its peer never comes back with a ticket.
TlsContext makeTlsContext(const TlsIdentity& identity);

/// One thread at a time. SIGPIPE must be ignored by the process.
class TlsStream {
 public:
  /// `ended`: the peer has closed its side. `failed`: nothing more can be read or written.
  enum class Status { done, wantRead, wantWrite, ended, failed };

  /// `fd` outlives the stream and stays the caller's.
  TlsStream(SSL_CTX* context, int fd);
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;

  Status accept();
  /// At least one byte when done.
  Status read(std::span<char> into, std::size_t& count);
  /// May take a part of the bytes; the same bytes are to be offered again after wantWrite.
  Status write(std::string_view bytes, std::size_t& taken);
  Status closeNotify();
  /// Hands the collected output to the socket: done, wantWrite or failed.
  Status flush();

  bool hasOutput() const { return !output_.empty(); }
  /// True when bytes were taken from the socket that read() has not given yet.
  bool hasUnreadInput() const { return SSL_has_pending(ssl_.get()) == 1; }

 private:
  struct Transport;

  Status statusOf(int result);

  const int fd_;
  std::string output_;
  std::size_t flushed_ = 0;  ///< leading bytes of output_ that the socket has taken
  std::unique_ptr<SSL, OpenSSLDeleter<SSL, SSL_free>> ssl_;
};

}  // namespace vesko
