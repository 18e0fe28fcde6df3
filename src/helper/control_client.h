// Calls the companion's control server: HTTPS on the loopback interface, one request a connection.
//
// The certificate is pinned: the SHA-256 of the leaf's DER must equal the announced fingerprint
// before a single byte of the request, and so of the token, is sent. Nothing is retried, because a
// request that was sent may have clicked. Any thread; calls run side by side. SIGPIPE must be
// ignored in the process.
#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>
#include <expected>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>

#include "base/json_record.h"
#include "helper/http_response_reader.h"

namespace vesko {

/// Where the control server is and how the two recognise each other, as the companion announces it.
struct ControlEndpoint {
  std::uint16_t port = 0;
  std::string token;
  std::string certificateSha256;  ///< 64 lower-case hexadecimal characters

  static constexpr auto jsonFields() {
    return std::tuple{json::field("port", &ControlEndpoint::port),
                      json::field("token", &ControlEndpoint::token),
                      json::field("cert_sha256", &ControlEndpoint::certificateSha256)};
  }
  /// Whether the values can be used as they are: a port, a token fit for a header, a fingerprint.
  bool usable() const;
};

struct ControlRequest {
  std::string method;
  std::string path;
  std::string body;  ///< JSON, or empty for none

  /// Upper-case letters and a visible ASCII path that begins with "/".
  bool wellFormed() const;
};

struct ControlDeadlines {
  std::chrono::milliseconds connect{5000};  ///< for the connection and the TLS handshake together
  std::chrono::milliseconds answer{60000};  ///< from there to the last byte of the answer
};

struct ControlCallError {
  enum class Kind { unreachable, untrusted, timedOut, badAnswer, cancelled };
  Kind kind;
  std::string message;
};

class ControlClient {
 public:
  static constexpr std::size_t maxAnswerBytes = 64 << 20;

  ControlClient();

  /// Blocks until the answer, an error, a deadline, or until `cancelFd` (if any) is readable.
  /// `endpoint` is usable and `request` well formed.
  std::expected<HttpResponse, ControlCallError> call(const ControlEndpoint& endpoint,
                                                     const ControlRequest& request,
                                                     const ControlDeadlines& deadlines,
                                                     int cancelFd = -1) const;

 private:
  struct FreeContext {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  std::unique_ptr<SSL_CTX, FreeContext> context_;
};

}  // namespace vesko
