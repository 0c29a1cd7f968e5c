#include "support/test_certificates.h"

#include <gtest/gtest.h>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <memory>

namespace kestrel_test
{
namespace
{
typedef std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> Key;
typedef std::unique_ptr<X509, decltype(&X509_free)> Cert;
typedef std::unique_ptr<BIO, decltype(&BIO_free)> Memory;

std::string content(const Memory& memory)
{
  const char* text = nullptr;
  const long length = BIO_get_mem_data(memory.get(), &text);
  return std::string(text, static_cast<std::size_t>(length));
}

Memory memory_with(const std::string& text)
{
  return Memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
}

Certificate as_pem(const Cert& certificate, const Key& key)
{
  Certificate result;
  const Memory first(BIO_new(BIO_s_mem()), BIO_free);
  EXPECT_EQ(1, PEM_write_bio_X509(first.get(), certificate.get()));
  result.certificate_pem = content(first);
  const Memory second(BIO_new(BIO_s_mem()), BIO_free);
  EXPECT_EQ(1, PEM_write_bio_PrivateKey(second.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr));
  result.key_pem = content(second);
  return result;
}

void extend(X509* certificate, X509* issuer, int kind, const std::string& value)
{
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()), X509_EXTENSION_free);
  ASSERT_TRUE(extension) << value;
  ASSERT_EQ(1, X509_add_ext(certificate, extension.get(), -1));
}

Cert blank(const std::string& name, const Key& key, long from_seconds, long to_seconds)
{
  static std::atomic<long> serial{1};
  Cert certificate(X509_new(), X509_free);
  EXPECT_EQ(1, X509_set_version(certificate.get(), 2));
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), from_seconds);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), to_seconds);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
  EXPECT_EQ(1, X509_set_pubkey(certificate.get(), key.get()));
  return certificate;
}
} // namespace

Certificate_Authority::Certificate_Authority(const std::string& name)
{
  const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const Cert certificate = blank(name, key, -7 * 24 * 3600, 7 * 24 * 3600);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate.get()));
  extend(certificate.get(), certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
  extend(certificate.get(), certificate.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  extend(certificate.get(), certificate.get(), NID_subject_key_identifier, "hash");
  EXPECT_GT(X509_sign(certificate.get(), key.get(), EVP_sha256()), 0);
  ca_ = as_pem(certificate, key);
}

Certificate Certificate_Authority::issue(const Certificate_Wish& wish) const
{
  const Cert ca_certificate(
      PEM_read_bio_X509(memory_with(ca_.certificate_pem).get(), nullptr, nullptr, nullptr), X509_free);
  const Key ca_key(PEM_read_bio_PrivateKey(memory_with(ca_.key_pem).get(), nullptr, nullptr, nullptr),
                   EVP_PKEY_free);
  const Key key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  const Cert certificate = blank(wish.common_name, key, wish.valid_from_seconds, wish.valid_to_seconds);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(ca_certificate.get()));
  std::string names;
  for (const std::string& name : wish.names)
    names += (names.empty() ? "DNS:" : ",DNS:") + name;
  for (const std::string& address : wish.addresses)
    names += (names.empty() ? "IP:" : ",IP:") + address;
  extend(certificate.get(), ca_certificate.get(), NID_basic_constraints, "CA:FALSE");
  extend(certificate.get(), ca_certificate.get(), NID_ext_key_usage, "serverAuth");
  extend(certificate.get(), ca_certificate.get(), NID_authority_key_identifier, "keyid");
  if (!names.empty())
    extend(certificate.get(), ca_certificate.get(), NID_subject_alt_name, names);
  EXPECT_GT(X509_sign(certificate.get(), ca_key.get(), EVP_sha256()), 0);
  return as_pem(certificate, key);
}
} // namespace kestrel_test
