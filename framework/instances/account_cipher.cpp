#include "instances/account_cipher.h"

#include "base/durable_file.h"
#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/scope_guard.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace kestrel
{
namespace
{
const size_t nonce_bytes = 12;
const size_t tag_bytes = 16;
const size_t max_plain_bytes = 64 * 1024;

typedef std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> Cipher_Context;

bool refuse(std::string& error, const std::string& text)
{
  error = text;
  return false;
}

std::string to_hex(const std::string& bytes)
{
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

bool from_hex(const std::string& text, std::string& bytes)
{
  if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdef") != std::string::npos)
    return false;
  const auto value = [](char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; };
  for (size_t i = 0; i < text.size(); i += 2)
    bytes += static_cast<char>(value(text[i]) << 4 | value(text[i + 1]));
  return true;
}

/// One unambiguous text of several: the length stands before each.
std::string joined(const std::vector<std::string>& texts)
{
  std::string result;
  for (const std::string& text : texts)
    result += std::to_string(text.size()) + ":" + text;
  return result;
}

unsigned char* bytes_of(std::string& text)
{
  return reinterpret_cast<unsigned char*>(&text[0]);
}
const unsigned char* bytes_of(const std::string& text)
{
  return reinterpret_cast<const unsigned char*>(text.data());
}
} // namespace

const size_t Account_Cipher::key_bytes;

Account_Cipher::~Account_Cipher()
{
  ::explicit_bzero(key_, sizeof key_);
}

bool Account_Cipher::load(const std::string& path, Missing_Key missing, std::string& error)
{
  // O_NONBLOCK: a named pipe at this path must not hang the open.
  int fd = file_system().open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0 && errno == ENOENT && missing == Missing_Key::make) {
    if (!make_key(path, error))
      return false;
    fd = file_system().open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  }
  if (fd < 0 && errno == ENOENT)
    return refuse(
        error, "The key file " + path +
                   " is missing, and the stored passwords cannot be read without it: put it back, or remove "
                   "accounts.json beside it and enter the accounts again");
  if (fd < 0)
    return refuse(error, "Cannot open the key file " + path + ": " + ::strerror(errno));
  Scope_Guard close_file([&] { ignore_result(file_system().close(fd), "it was only read"); });
  return read_key(fd, path, error);
}

bool Account_Cipher::make_key(const std::string& path, std::string& error)
{
  std::string key(key_bytes, '\0');
  Wipe_Guard<std::string> wipe_key(key);
  if (RAND_bytes(bytes_of(key), static_cast<int>(key_bytes)) != 1)
    return refuse(error, "The system gives no random numbers for the key file " + path);
  std::string cause;
  if (!write_file_durably(path, key, 0600, cause))
    return refuse(error, "Cannot make the key file " + path + ": " + cause);
  return true;
}

bool Account_Cipher::read_key(int fd, const std::string& path, std::string& error)
{
  struct stat status;
  if (file_system().fstat(fd, &status) != 0)
    return refuse(error, "Cannot look at the key file " + path + ": " + ::strerror(errno));
  if (!S_ISREG(status.st_mode))
    return refuse(error, "The key file " + path + " is not a regular file");
  if (status.st_uid != ::geteuid())
    return refuse(error, "The key file " + path +
                             " belongs to another user: make it the property of the user that " +
                             "runs this program");
  if ((status.st_mode & 077) != 0)
    return refuse(error, "The key file " + path +
                             " can be reached by other users: chmod 600 it, and change the " +
                             "passwords if others may have read it");
  unsigned char content[key_bytes + 1];
  Scope_Guard wipe_content([&] { ::explicit_bzero(content, sizeof content); });
  size_t length = 0;
  while (length < sizeof content) {
    const ssize_t count = file_system().read(fd, content + length, sizeof content - length);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return refuse(error, "Cannot read the key file " + path + ": " + ::strerror(errno));
    if (count == 0)
      break;
    length += static_cast<size_t>(count);
  }
  if (length != key_bytes)
    return refuse(
        error, "The key file " + path + " is damaged (it must hold " + std::to_string(key_bytes) +
                   " bytes): put back a copy of it, or remove it and accounts.json beside it and enter the "
                   "accounts again");
  ::memcpy(key_, content, key_bytes);
  return true;
}

std::string Account_Cipher::key_id() const
{
  // Hashed under a label, so that the identifier says nothing about any use of the key itself.
  std::string labelled = "kestrel account key id";
  Wipe_Guard<std::string> wipe_labelled(labelled);
  labelled.reserve(labelled.size() + key_bytes);
  labelled.append(reinterpret_cast<const char*>(key_), key_bytes);
  std::string digest(SHA256_DIGEST_LENGTH, '\0');
  SHA256(bytes_of(labelled), labelled.size(), bytes_of(digest));
  return to_hex(digest.substr(0, 8));
}

bool Account_Cipher::seal(const std::vector<std::string>& bound, const secure_string& plain,
                          std::string& sealed, std::string& error) const
{
  if (plain.size() > max_plain_bytes)
    return refuse(error, "The password is longer than " + std::to_string(max_plain_bytes) + " bytes");
  std::string bytes(nonce_bytes + plain.size() + tag_bytes, '\0');
  if (RAND_bytes(bytes_of(bytes), static_cast<int>(nonce_bytes)) != 1)
    return refuse(error, "The system gives no random numbers to encrypt the password");
  const std::string context = joined(bound);
  unsigned char* const text = bytes_of(bytes) + nonce_bytes;
  int length = 0, rest = 0;
  Cipher_Context cipher(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  const bool done =
      cipher && EVP_EncryptInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, key_, bytes_of(bytes)) == 1 &&
      EVP_EncryptUpdate(cipher.get(), nullptr, &length, bytes_of(context),
                        static_cast<int>(context.size())) == 1 &&
      EVP_EncryptUpdate(cipher.get(), text, &length, reinterpret_cast<const unsigned char*>(plain.data()),
                        static_cast<int>(plain.size())) == 1 &&
      EVP_EncryptFinal_ex(cipher.get(), text + length, &rest) == 1 &&
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(tag_bytes),
                          text + plain.size()) == 1;
  if (!done)
    return refuse(error, "The password could not be encrypted");
  sealed = to_hex(bytes);
  return true;
}

bool Account_Cipher::open(const std::vector<std::string>& bound, const std::string& sealed,
                          secure_string& plain, std::string& error) const
{
  std::string bytes;
  if (!from_hex(sealed, bytes) || bytes.size() < nonce_bytes + tag_bytes ||
      bytes.size() > nonce_bytes + tag_bytes + max_plain_bytes)
    return refuse(error, "the stored password is damaged");
  const size_t plain_bytes = bytes.size() - nonce_bytes - tag_bytes;
  const std::string context = joined(bound);
  unsigned char* const text = bytes_of(bytes) + nonce_bytes;
  secure_string decrypted(plain_bytes + 1,
                          '\0'); // one more, so that there is an address for an empty password
  Wipe_Guard<secure_string> wipe_decrypted(decrypted);
  unsigned char* const target = reinterpret_cast<unsigned char*>(&decrypted[0]);
  int length = 0, rest = 0;
  Cipher_Context cipher(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  const bool done =
      cipher && EVP_DecryptInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, key_, bytes_of(bytes)) == 1 &&
      EVP_DecryptUpdate(cipher.get(), nullptr, &length, bytes_of(context),
                        static_cast<int>(context.size())) == 1 &&
      EVP_DecryptUpdate(cipher.get(), target, &length, text, static_cast<int>(plain_bytes)) == 1 &&
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(tag_bytes),
                          text + plain_bytes) == 1 &&
      EVP_DecryptFinal_ex(cipher.get(), target + length, &rest) == 1;
  if (!done)
    return refuse(error, "the stored password does not belong to this account or was changed");
  plain.assign(decrypted, 0, plain_bytes);
  return true;
}
} // namespace kestrel
