#include "server/tls_setup.h"

#include "support/clocks.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

using namespace kestrel;

namespace
{
std::shared_ptr<X509> read(const std::string& pem)
{
  BIO* const bio = ::BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  X509* const certificate = ::PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  ::BIO_free(bio);
  return std::shared_ptr<X509>(certificate, ::X509_free);
}

bool signed_by(const std::string& certificate, const std::string& ca)
{
  const auto issuer = read(ca), subject = read(certificate);
  EVP_PKEY* const key = ::X509_get0_pubkey(issuer.get());
  return ::X509_check_issued(issuer.get(), subject.get()) == X509_V_OK &&
         ::X509_verify(subject.get(), key) == 1;
}
} // namespace

TEST(TLS_Setup, the_ca_signs_server_certificates_with_their_names)
{
  TLS_Pair ca, server;
  std::string error;
  ASSERT_TRUE(make_ca(ca, error)) << error;
  TLS_Names names{{"db.example.com", "*.example.org"}, {"192.0.2.1", "2001:db8::1"}};
  ASSERT_TRUE(make_server_certificate(ca, names, server, error)) << error;
  EXPECT_TRUE(signed_by(server.certificate, ca.certificate));
  EXPECT_TRUE(signed_by(ca.certificate, ca.certificate));
  TLS_Names found;
  ASSERT_TRUE(certificate_names(server.certificate, found, error)) << error;
  EXPECT_EQ(names.names, found.names);
  EXPECT_EQ(names.addresses, found.addresses);
  const auto certificate = read(server.certificate);
  EXPECT_EQ(0u, ::X509_get_extension_flags(certificate.get()) & EXFLAG_CA);
  EXPECT_EQ(unsigned(XKU_SSL_SERVER), ::X509_get_extended_key_usage(certificate.get()));
  EXPECT_NE(0u, ::X509_get_extension_flags(read(ca.certificate).get()) & EXFLAG_CA);
}

void expect_ends_in_ten_years_and_in_825_days(int64_t now)
{
  TLS_Pair ca, server;
  std::string error;
  int64_t ca_end = 0, end = 0;
  ASSERT_TRUE(make_ca(ca, error) && make_server_certificate(ca, {{"a"}, {}}, server, error)) << error;
  ASSERT_TRUE(certificate_end(ca.certificate, ca_end, error) &&
              certificate_end(server.certificate, end, error));
  EXPECT_EQ(now + int64_t(3650) * 86400, ca_end);
  EXPECT_EQ(now + int64_t(825) * 86400, end);
}

TEST(TLS_Setup, certificates_last_as_long_as_they_should)
{
  kestrel_test::Fake_Clock clock;
  expect_ends_in_ten_years_and_in_825_days(clock.now());
}

TEST(TLS_Setup, certificates_end_behind_the_last_second_that_32_bits_can_count)
{
  const int64_t begin_of_2038 = 2145916800;
  kestrel_test::Fake_Clock clock(begin_of_2038);
  expect_ends_in_ten_years_and_in_825_days(begin_of_2038);
}

TEST(TLS_Setup, two_certificates_have_different_keys_and_serial_numbers)
{
  TLS_Pair ca, one, other;
  std::string error;
  ASSERT_TRUE(make_ca(ca, error) && make_server_certificate(ca, {{"a"}, {}}, one, error) &&
              make_server_certificate(ca, {{"a"}, {}}, other, error));
  EXPECT_NE(one.key, other.key);
  EXPECT_NE(0, ::ASN1_INTEGER_cmp(::X509_get0_serialNumber(read(one.certificate).get()),
                                  ::X509_get0_serialNumber(read(other.certificate).get())));
}

TEST(TLS_Setup, refuses_bad_names_and_damaged_input)
{
  TLS_Pair ca, other_ca, server;
  std::string error;
  ASSERT_TRUE(make_ca(ca, error) && make_ca(other_ca, error));
  for (const TLS_Names& names : {TLS_Names{}, TLS_Names{{"a b"}, {}}, TLS_Names{{"a,DNS:b"}, {}},
                                 TLS_Names{{}, {"a"}}, TLS_Names{{""}, {}}, TLS_Names{{}, {"192.0.2.256"}},
                                 TLS_Names{{"-a"}, {}}, TLS_Names{{std::string(64, 'a')}, {}}})
    EXPECT_FALSE(make_server_certificate(ca, names, server, error));
  EXPECT_FALSE(make_server_certificate({ca.certificate, other_ca.key}, {{"a"}, {}}, server, error));
  EXPECT_NE(std::string::npos, error.find("not of its certificate"));
  EXPECT_FALSE(make_server_certificate({"", ""}, {{"a"}, {}}, server, error));
  EXPECT_TRUE(server.key.empty());
  TLS_Names names;
  int64_t end = 0;
  EXPECT_FALSE(certificate_names("garbage", names, error));
  EXPECT_FALSE(certificate_names(ca.certificate, names, error));
  EXPECT_FALSE(certificate_end("garbage", end, error));
}
