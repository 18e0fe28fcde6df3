#include "control_server/tls_identity.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstddef>
#include <ctime>
#include <span>

#include "base/base64.h"
#include "base/digest.h"

namespace vesko {
namespace {

template <class T, void (*release)(T*)>
using Owned = std::unique_ptr<T, OpenSSLDeleter<T, release>>;

constexpr char commonName[] = "Vesko Companion Control Server";
constexpr long secondsBefore = 86'400;
constexpr long secondsAfter = 315'360'000;
constexpr std::size_t serialBytes = 20;  // the most that RFC 5280 allows

using Step = std::expected<void, ControlServerError>;

Step check(bool succeeded, ControlServerError error) {
  if (!succeeded) return std::unexpected(error);
  return {};
}

Step setSerial(X509* certificate) {
  std::array<std::byte, serialBytes> bytes{};
  if (!fillRandom(bytes)) return std::unexpected(ControlServerError::randomGenerationFailed);
  bytes[0] &= std::byte{0x7F};  // a DER INTEGER with the top bit set would be negative
  const Owned<BIGNUM, BN_free> number(BN_bin2bn(reinterpret_cast<const unsigned char*>(&bytes[0]),
                                                static_cast<int>(bytes.size()), nullptr));
  return check(number && BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)),
               ControlServerError::certificateGenerationFailed);
}

/// GeneralizedTime also before 2050, where OpenSSL would choose UTCTime by itself.
bool setValidity(X509* certificate, std::time_t now) {
  const Owned<ASN1_TIME, ASN1_TIME_free> before(
      ASN1_GENERALIZEDTIME_set(nullptr, now - secondsBefore));
  const Owned<ASN1_TIME, ASN1_TIME_free> after(
      ASN1_GENERALIZEDTIME_set(nullptr, now + secondsAfter));
  return before && after && X509_set1_notBefore(certificate, before.get()) == 1 &&
         X509_set1_notAfter(certificate, after.get()) == 1;
}

bool setNames(X509* certificate) {
  const Owned<X509_NAME, X509_NAME_free> name(X509_NAME_new());
  return name &&
         X509_NAME_add_entry_by_NID(name.get(), NID_commonName, MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(commonName), -1, -1,
                                    0) == 1 &&
         X509_set_subject_name(certificate, name.get()) == 1 &&
         X509_set_issuer_name(certificate, name.get()) == 1;
}

bool addAlternativeNames(X509* certificate) {
  const Owned<X509_EXTENSION, X509_EXTENSION_free> extension(
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1"));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

std::string fingerprintOf(X509* certificate) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(certificate, &der);
  if (length <= 0) return {};
  std::string fingerprint =
      sha256Hex(std::as_bytes(std::span(der, static_cast<std::size_t>(length))));
  OPENSSL_free(der);
  return fingerprint;
}

}  // namespace

std::string_view describe(ControlServerError error) {
  switch (error) {
    case ControlServerError::keyGenerationFailed:
      return "key generation failed";
    case ControlServerError::randomGenerationFailed:
      return "random generation failed";
    case ControlServerError::certificateSigningFailed:
      return "certificate signing failed";
    case ControlServerError::certificateGenerationFailed:
      return "certificate generation failed";
  }
  return "unknown error";
}

std::expected<TlsIdentity, ControlServerError> makeTlsIdentity(
    std::chrono::system_clock::time_point now) {
  TlsIdentity identity;
  identity.key.reset(EVP_EC_gen("P-256"));
  if (!identity.key) return std::unexpected(ControlServerError::keyGenerationFailed);
  identity.certificate.reset(X509_new());
  X509* certificate = identity.certificate.get();
  if (!certificate) return std::unexpected(ControlServerError::certificateGenerationFailed);

  if (auto step = setSerial(certificate); !step) return std::unexpected(step.error());
  const bool built = X509_set_version(certificate, X509_VERSION_3) == 1 &&
                     setValidity(certificate, std::chrono::system_clock::to_time_t(now)) &&
                     setNames(certificate) &&
                     X509_set_pubkey(certificate, identity.key.get()) == 1 &&
                     addAlternativeNames(certificate);
  if (!built) return std::unexpected(ControlServerError::certificateGenerationFailed);
  if (X509_sign(certificate, identity.key.get(), EVP_sha256()) <= 0)
    return std::unexpected(ControlServerError::certificateSigningFailed);
  identity.fingerprint = fingerprintOf(certificate);
  if (identity.fingerprint.empty())
    return std::unexpected(ControlServerError::certificateGenerationFailed);
  return identity;
}

std::expected<std::string, ControlServerError> makeBearerToken() {
  std::array<std::byte, 32> bytes{};
  if (!fillRandom(bytes)) return std::unexpected(ControlServerError::randomGenerationFailed);
  return base64UrlEncode(bytes);
}

}  // namespace vesko
