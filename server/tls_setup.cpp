#include "server/tls_setup.h"

#include "base/clock.h"

#include <arpa/inet.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>

namespace kestrel
{
namespace
{
template <class T, void (*release)(T*)> struct Releaser {
  void operator()(T* object) const { release(object); }
};
void free_bio(BIO* bio)
{
  ::BIO_free_all(bio);
}
typedef std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY, ::EVP_PKEY_free>> Key;
typedef std::unique_ptr<X509, Releaser<X509, ::X509_free>> Certificate;
typedef std::unique_ptr<BIO, Releaser<BIO, free_bio>> Bio;
typedef std::unique_ptr<ASN1_TIME, Releaser<ASN1_TIME, ::ASN1_TIME_free>> Time;
typedef std::unique_ptr<GENERAL_NAMES, Releaser<GENERAL_NAMES, ::GENERAL_NAMES_free>> Names;

constexpr int64_t DAY_SECONDS = 24 * 3600;

/// Throws with what the library says when `done` is not true.
void require(bool done, const char* what)
{
  if (done)
    return;
  char text[256] = "";
  const unsigned long code = ::ERR_get_error();
  if (code != 0)
    ::ERR_error_string_n(code, text, sizeof text);
  ::ERR_clear_error();
  throw std::runtime_error(std::string(what) + (*text ? ": " : "") + text);
}

Key make_key()
{
  Key key(::EVP_EC_gen("P-256"));
  require(key != nullptr, "a key could not be made");
  return key;
}

std::string pem_of(const std::function<int(BIO*)>& write)
{
  Bio bio(::BIO_new(::BIO_s_mem()));
  require(bio && write(bio.get()) == 1, "PEM could not be written");
  char* data = nullptr;
  const long size = ::BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

TLS_Pair pem_pair(X509* certificate, EVP_PKEY* key)
{
  TLS_Pair pair;
  pair.certificate = pem_of([&](BIO* bio) { return ::PEM_write_bio_X509(bio, certificate); });
  pair.key = pem_of([&](BIO* bio) {
    return ::PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
  return pair;
}

Certificate read_certificate(const std::string& pem)
{
  Bio bio(::BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  Certificate certificate(bio ? ::PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  require(certificate != nullptr, "this is no certificate");
  return certificate;
}

Key read_key(const std::string& pem)
{
  Bio bio(::BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  Key key(bio ? ::PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  require(key != nullptr, "this is no private key");
  return key;
}

void set_serial(X509* certificate)
{
  unsigned char bytes[16];
  require(::RAND_bytes(bytes, sizeof bytes) == 1, "no random bytes");
  bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7f) | 0x40); // positive and of full length
  BIGNUM* const number = ::BN_bin2bn(bytes, sizeof bytes, nullptr);
  const bool done =
      number != nullptr && ::BN_to_ASN1_INTEGER(number, ::X509_get_serialNumber(certificate)) != nullptr;
  ::BN_free(number);
  require(done, "a serial number could not be set");
}

void add_extension(X509* certificate, X509* issuer, int id, const std::string& value)
{
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  ::X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* const extension = ::X509V3_EXT_conf_nid(nullptr, &context, id, value.c_str());
  const bool done = extension != nullptr && ::X509_add_ext(certificate, extension, -1) == 1;
  ::X509_EXTENSION_free(extension);
  require(done, "an extension could not be added");
}

void set_subject(X509* certificate, const std::string& common_name)
{
  X509_NAME* const name = ::X509_get_subject_name(certificate);
  // The field holds at most 64 characters; what counts are the alternative names.
  const std::string text = common_name.substr(0, 64);
  require(::X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()), -1, 0) == 1,
          "a name could not be set");
}

/// Days and seconds, for a time_t of 32 bits ends in 2038, and a CA lasts ten years.
bool set_time(ASN1_TIME* time, int64_t seconds)
{
  return ::ASN1_TIME_adj(time, 0, static_cast<int>(seconds / DAY_SECONDS),
                         static_cast<long>(seconds % DAY_SECONDS)) != nullptr;
}

bool seconds_of(const ASN1_TIME* time, int64_t& seconds)
{
  const Time epoch(::ASN1_TIME_set(nullptr, 0));
  int days = 0, rest = 0;
  if (!epoch || ::ASN1_TIME_diff(&days, &rest, epoch.get(), time) != 1)
    return false;
  seconds = days * DAY_SECONDS + rest;
  return true;
}

Certificate begin_certificate(EVP_PKEY* key, const std::string& common_name, int64_t not_before,
                              int64_t not_after)
{
  Certificate certificate(::X509_new());
  require(certificate && ::X509_set_version(certificate.get(), 2) == 1, "a certificate could not be made");
  set_serial(certificate.get());
  require(set_time(::X509_getm_notBefore(certificate.get()), not_before) &&
              set_time(::X509_getm_notAfter(certificate.get()), not_after) &&
              ::X509_set_pubkey(certificate.get(), key) == 1,
          "a certificate could not be filled");
  set_subject(certificate.get(), common_name);
  return certificate;
}

/// Runs what throws; false with its text.
bool attempt(const std::string& what, std::string& error, const std::function<void()>& work)
{
  try {
    work();
    return true;
  } catch (const std::exception& exception) {
    error = what + ": " + exception.what();
    return false;
  }
}

std::string alternative_names(const TLS_Names& names)
{
  std::string text;
  for (const std::string& name : names.names) {
    if (!is_dns_name(name))
      throw std::runtime_error("'" + name + "' is no DNS name");
    text += (text.empty() ? "DNS:" : ",DNS:") + name;
  }
  for (const std::string& address : names.addresses) {
    if (!is_numeric_address(address))
      throw std::runtime_error("'" + address + "' is no numeric address");
    text += (text.empty() ? "IP:" : ",IP:") + address;
  }
  if (text.empty())
    throw std::runtime_error("it needs a name or an address");
  return text;
}
} // namespace

bool is_dns_name(const std::string& name)
{
  if (name.empty() || name.size() > 253)
    return false;
  const std::string rest = name.compare(0, 2, "*.") == 0 ? name.substr(2) : name;
  size_t begin = 0;
  for (;;) {
    const size_t dot = rest.find('.', begin);
    const std::string label = rest.substr(begin, dot == std::string::npos ? dot : dot - begin);
    if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-')
      return false;
    for (const char c : label)
      if (!::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_')
        return false;
    if (dot == std::string::npos)
      return true;
    begin = dot + 1;
  }
}

bool is_numeric_address(const std::string& address)
{
  unsigned char bytes[16];
  return ::inet_pton(AF_INET, address.c_str(), bytes) == 1 ||
         ::inet_pton(AF_INET6, address.c_str(), bytes) == 1;
}

bool make_ca(TLS_Pair& ca, std::string& error)
{
  return attempt("Cannot make a CA", error, [&] {
    const Key key = make_key();
    const int64_t now = static_cast<int64_t>(clock().now());
    const Certificate certificate =
        begin_certificate(key.get(), "Kestrel CA", now - 3600, now + CA_DAYS * DAY_SECONDS);
    X509* const raw = certificate.get();
    require(::X509_set_issuer_name(raw, ::X509_get_subject_name(raw)) == 1, "an issuer could not be set");
    add_extension(raw, raw, NID_basic_constraints, "critical,CA:TRUE,pathlen:0");
    add_extension(raw, raw, NID_key_usage, "critical,keyCertSign,cRLSign");
    add_extension(raw, raw, NID_subject_key_identifier, "hash");
    require(::X509_sign(raw, key.get(), ::EVP_sha256()) > 0, "it could not be signed");
    ca = pem_pair(raw, key.get());
  });
}

bool make_server_certificate(const TLS_Pair& ca, const TLS_Names& names, TLS_Pair& server, std::string& error,
                             int64_t not_after)
{
  return attempt("Cannot make a server certificate", error, [&] {
    const Certificate issuer = read_certificate(ca.certificate);
    const Key issuer_key = read_key(ca.key);
    require(::X509_check_private_key(issuer.get(), issuer_key.get()) == 1,
            "the CA's key is not of its certificate");
    const std::string alternative = alternative_names(names);
    const Key key = make_key();
    const int64_t now = static_cast<int64_t>(clock().now());
    const int64_t end = not_after != 0 ? not_after : now + SERVER_CERTIFICATE_DAYS * DAY_SECONDS;
    const Certificate certificate =
        begin_certificate(key.get(), names.names.empty() ? names.addresses.front() : names.names.front(),
                          std::min(now - 3600, end - 3600), end);
    X509* const raw = certificate.get();
    require(::X509_set_issuer_name(raw, ::X509_get_subject_name(issuer.get())) == 1,
            "an issuer could not be set");
    add_extension(raw, issuer.get(), NID_basic_constraints, "critical,CA:FALSE");
    add_extension(raw, issuer.get(), NID_key_usage, "critical,digitalSignature");
    add_extension(raw, issuer.get(), NID_ext_key_usage, "serverAuth");
    add_extension(raw, issuer.get(), NID_subject_key_identifier, "hash");
    add_extension(raw, issuer.get(), NID_authority_key_identifier, "keyid");
    add_extension(raw, issuer.get(), NID_subject_alt_name, alternative);
    require(::X509_sign(raw, issuer_key.get(), ::EVP_sha256()) > 0, "it could not be signed");
    server = pem_pair(raw, key.get());
  });
}

bool certificate_names(const std::string& certificate, TLS_Names& names, std::string& error)
{
  return attempt("Cannot read the names of a certificate", error, [&] {
    const Certificate read = read_certificate(certificate);
    const Names found(
        static_cast<GENERAL_NAMES*>(::X509_get_ext_d2i(read.get(), NID_subject_alt_name, nullptr, nullptr)));
    require(found != nullptr, "it has none");
    TLS_Names all;
    for (int i = 0; i < sk_GENERAL_NAME_num(found.get()); ++i) {
      const GENERAL_NAME* const name = sk_GENERAL_NAME_value(found.get(), i);
      if (name->type == GEN_DNS) {
        const unsigned char* const text = ::ASN1_STRING_get0_data(name->d.dNSName);
        all.names.emplace_back(reinterpret_cast<const char*>(text),
                               static_cast<size_t>(::ASN1_STRING_length(name->d.dNSName)));
      } else if (name->type == GEN_IPADD) {
        const int length = ::ASN1_STRING_length(name->d.iPAddress);
        char text[INET6_ADDRSTRLEN] = "";
        require((length == 4 || length == 16) &&
                    ::inet_ntop(length == 4 ? AF_INET : AF_INET6, ::ASN1_STRING_get0_data(name->d.iPAddress),
                                text, sizeof text) != nullptr,
                "an address is damaged");
        all.addresses.push_back(text);
      }
    }
    names = all;
  });
}

bool certificate_end(const std::string& certificate, int64_t& not_after, std::string& error)
{
  return attempt("Cannot read a certificate", error, [&] {
    const Certificate read = read_certificate(certificate);
    require(seconds_of(::X509_get0_notAfter(read.get()), not_after), "its end is damaged");
  });
}
} // namespace kestrel
