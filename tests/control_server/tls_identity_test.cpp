#include "control_server/tls_identity.h"

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/x509v3.h>

#include <array>
#include <chrono>
#include <cstring>
#include <string>

namespace vesko {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

std::string textOf(const ASN1_STRING* string) {
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
          static_cast<std::size_t>(ASN1_STRING_length(string))};
}

TEST(TlsIdentity, CertificateAsOpenSSLReadsItBack) {
  const system_clock::time_point now{seconds(1'700'000'000)};  // 2023-11-14 22:13:20 UTC
  const auto identity = makeTlsIdentity(now);
  ASSERT_TRUE(identity);
  unsigned char* der = nullptr;
  const int length = i2d_X509(identity->certificate.get(), &der);
  ASSERT_GT(length, 0);
  const unsigned char* cursor = der;
  X509* certificate = d2i_X509(nullptr, &cursor, length);
  OPENSSL_free(der);
  ASSERT_NE(certificate, nullptr);

  EXPECT_EQ(X509_get_version(certificate), X509_VERSION_3);
  EXPECT_EQ(X509_get_signature_nid(certificate), NID_ecdsa_with_SHA256);
  EXPECT_EQ(X509_verify(certificate, identity->key.get()), 1);
  std::array<char, 80> group{};
  EXPECT_EQ(
      EVP_PKEY_get_group_name(X509_get0_pubkey(certificate), group.data(), group.size(), nullptr),
      1);
  EXPECT_STREQ(group.data(), "prime256v1");

  EXPECT_EQ(X509_get0_notBefore(certificate)->type, V_ASN1_GENERALIZEDTIME);
  EXPECT_EQ(X509_get0_notAfter(certificate)->type, V_ASN1_GENERALIZEDTIME);
  EXPECT_EQ(textOf(X509_get0_notBefore(certificate)), "20231113221320Z");
  EXPECT_EQ(textOf(X509_get0_notAfter(certificate)), "20331111221320Z");

  X509_NAME* subject = X509_get_subject_name(certificate);
  EXPECT_EQ(X509_NAME_entry_count(subject), 1);
  std::array<char, 80> name{};
  X509_NAME_get_text_by_NID(subject, NID_commonName, name.data(), name.size());
  EXPECT_STREQ(name.data(), "Vesko Companion Control Server");
  EXPECT_EQ(X509_NAME_cmp(subject, X509_get_issuer_name(certificate)), 0);

  EXPECT_EQ(X509_get_ext_count(certificate), 1);
  EXPECT_EQ(
      X509_check_host(certificate, "localhost", 0, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT, nullptr),
      1);
  EXPECT_EQ(X509_check_ip_asc(certificate, "127.0.0.1", 0), 1);
  EXPECT_EQ(X509_check_ip_asc(certificate, "127.0.0.2", 0), 0);
  X509_free(certificate);
}

TEST(TlsIdentity, EachIsItsOwn) {
  std::string former;
  for (int i = 0; i < 64; ++i) {
    const auto identity = makeTlsIdentity(system_clock::now());
    const auto token = makeBearerToken();
    ASSERT_TRUE(identity && token);
    const ASN1_INTEGER* serial = X509_get0_serialNumber(identity->certificate.get());
    EXPECT_EQ(serial->type, V_ASN1_INTEGER);  // V_ASN1_NEG_INTEGER when negative
    EXPECT_LE(serial->length, 20);
    EXPECT_GE(serial->length, 16);
    EXPECT_NE(identity->fingerprint, former);
    former = identity->fingerprint;
    EXPECT_EQ(token->size(), 43U);
    EXPECT_EQ(token->find_first_of("+/="), std::string::npos);
  }
}

}  // namespace
}  // namespace vesko
