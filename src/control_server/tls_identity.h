// The control server's own TLS identity, made anew for every server and kept in memory only: a
// P-256 key, a self-signed X.509 v3 certificate (RFC 5280) for the loopback names, and the bearer
// token. Immutable once made; any thread.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <chrono>
#include <expected>
#include <memory>
#include <string>
#include <string_view>

namespace vesko {

enum class ControlServerError {
  keyGenerationFailed,
  randomGenerationFailed,
  certificateSigningFailed,
  certificateGenerationFailed,
};

std::string_view describe(ControlServerError error);

template <class T, void (*release)(T*)>
struct OpenSSLDeleter {
  void operator()(T* object) const { release(object); }
};

struct TlsIdentity {
  std::unique_ptr<EVP_PKEY, OpenSSLDeleter<EVP_PKEY, EVP_PKEY_free>> key;
  std::unique_ptr<X509, OpenSSLDeleter<X509, X509_free>> certificate;
  /// SHA-256 of the certificate's DER bytes, 64 lower-case hexadecimal characters.
  std::string fingerprint;
};

/// Valid from one day before `now` for the coming ten years of 365 days.
std::expected<TlsIdentity, ControlServerError> makeTlsIdentity(
    std::chrono::system_clock::time_point now);

/// 32 random bytes as 43 characters of unpadded base64url.
std::expected<std::string, ControlServerError> makeBearerToken();

}  // namespace vesko
