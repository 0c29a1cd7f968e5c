#include "server/secrets.h"

#include "base/hex.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <new>
#include <system_error>
#include <vector>

namespace kestrel
{
namespace
{
const unsigned SCRYPT_R = 8, SCRYPT_P = 1;
std::atomic<unsigned> password_cost{15};
const uint64_t SCRYPT_MEMORY = 64u << 20;
const unsigned SALT_BYTES = 16, HASH_BYTES = 32;

std::string to_hex(const unsigned char* bytes, size_t count)
{
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

bool from_hex(const std::string& text, std::vector<unsigned char>& bytes)
{
  if (text.size() % 2 != 0)
    return false;
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = hex_digit(text[i]), low = hex_digit(text[i + 1]);
    if (high < 0 || low < 0)
      return false;
    bytes.push_back(static_cast<unsigned char>(high * 16 + low));
  }
  return true;
}

/// Lets two threads in: a crowd that signs in must not take all memory.
class Scrypt_Turn
{
public:
  Scrypt_Turn()
  {
    std::unique_lock<std::mutex> lock(mutex());
    free().wait(lock, [] { return running() < 2; });
    ++running();
  }
  ~Scrypt_Turn()
  {
    std::lock_guard<std::mutex> guard(mutex());
    --running();
    free().notify_one();
  }
  Scrypt_Turn(const Scrypt_Turn&) = delete;
  Scrypt_Turn& operator=(const Scrypt_Turn&) = delete;

private:
  static std::mutex& mutex()
  {
    static std::mutex one;
    return one;
  }
  static std::condition_variable& free()
  {
    static std::condition_variable one;
    return one;
  }
  static unsigned& running()
  {
    static unsigned count = 0;
    return count;
  }
};

std::string scrypt_hex(const std::string& password, const std::vector<unsigned char>& salt, unsigned log2_n,
                       unsigned r, unsigned p)
{
  const Scrypt_Turn turn;
  unsigned char hash[HASH_BYTES];
  if (::EVP_PBE_scrypt(password.data(), password.size(), salt.data(), salt.size(), uint64_t(1) << log2_n, r,
                       p, SCRYPT_MEMORY, hash, sizeof hash) != 1)
    throw std::bad_alloc();
  return to_hex(hash, sizeof hash);
}

struct Parsed_Hash {
  unsigned log2_n = 0, r = 0, p = 0;
  std::vector<unsigned char> salt;
  std::string hash;
};

bool parse_hash(const std::string& text, Parsed_Hash& parsed)
{
  std::vector<std::string> parts;
  size_t begin = 0;
  for (size_t end; (end = text.find('$', begin)) != std::string::npos; begin = end + 1)
    parts.push_back(text.substr(begin, end - begin));
  parts.push_back(text.substr(begin));
  if (parts.size() != 6 || parts[0] != "scrypt")
    return false;
  unsigned* const numbers[] = {&parsed.log2_n, &parsed.r, &parsed.p};
  for (size_t i = 0; i < 3; ++i) {
    const std::string& number = parts[i + 1];
    if (number.empty() || number.size() > 2 || number.find_first_not_of("0123456789") != std::string::npos)
      return false;
    *numbers[i] = static_cast<unsigned>(std::stoi(number));
  }
  parsed.hash = parts[5];
  return parsed.log2_n >= 10 && parsed.log2_n <= 15 && parsed.r >= 1 && parsed.r <= 8 && parsed.p >= 1 &&
         parsed.p <= 4 && from_hex(parts[4], parsed.salt);
}
} // namespace

std::string random_hex(unsigned bytes)
{
  std::vector<unsigned char> random(bytes);
  if (::RAND_bytes(random.data(), static_cast<int>(bytes)) != 1)
    throw std::system_error(EIO, std::generic_category(), "no random bytes");
  return to_hex(random.data(), random.size());
}

std::string sha256_hex(const std::string& text)
{
  unsigned char hash[SHA256_DIGEST_LENGTH];
  ::SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), hash);
  return to_hex(hash, sizeof hash);
}

bool equal_secrets(const std::string& one, const std::string& other)
{
  return one.size() == other.size() && ::CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

std::string hash_password(const std::string& password)
{
  const std::string salt_hex = random_hex(SALT_BYTES);
  std::vector<unsigned char> salt;
  if (!from_hex(salt_hex, salt))
    throw std::bad_alloc();
  const unsigned cost = password_cost;
  return "scrypt$" + std::to_string(cost) + "$" + std::to_string(SCRYPT_R) + "$" + std::to_string(SCRYPT_P) +
         "$" + salt_hex + "$" + scrypt_hex(password, salt, cost, SCRYPT_R, SCRYPT_P);
}

bool check_password(const std::string& password, const std::string& hash)
{
  Parsed_Hash parsed;
  if (!parse_hash(hash, parsed)) {
    check_no_password(password);
    return false;
  }
  return equal_secrets(scrypt_hex(password, parsed.salt, parsed.log2_n, parsed.r, parsed.p), parsed.hash);
}

void check_no_password(const std::string& password)
{
  const std::vector<unsigned char> salt(SALT_BYTES);
  scrypt_hex(password, salt, password_cost, SCRYPT_R, SCRYPT_P);
}

void set_password_cost(unsigned log2_n)
{
  password_cost = log2_n;
}
} // namespace kestrel
