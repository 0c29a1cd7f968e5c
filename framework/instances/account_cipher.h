#pragma once

#include "base/secure_allocator.h"

#include <string>
#include <vector>

namespace kestrel
{
/// Encrypts the passwords of accounts.json with the key of account.key (AES-256-GCM).
/// Each password gets a random nonce, and the texts it belongs to enter its authentication: an entry that was
/// copied to another account, or changed, does not decrypt. Protects the accounts file where it travels
/// without the key (copies, backups of the directory); whoever reads as the user of this process has both.
/// Threads:   const operations from any thread.
/// Ownership: the key is wiped with the object.
/// Errors:    false with one sentence in `error` (never with a secret in it); results untouched.
/// Crash:     the key file appears whole or not at all.
class Account_Cipher
{
public:
  static const size_t key_bytes = 32;
  enum class Missing_Key {
    make, ///< make a new key; the caller holds the lock of the accounts and knows that nothing is encrypted
          ///< yet
    error
  };

  Account_Cipher() = default;
  ~Account_Cipher();
  Account_Cipher(const Account_Cipher&) = delete;
  Account_Cipher& operator=(const Account_Cipher&) = delete;

  /// The file must be a regular file of this user with no permission for anybody else and hold exactly
  /// key_bytes.
  [[nodiscard]] bool load(const std::string& path, Missing_Key missing, std::string& error);

  /// Tells keys apart without giving them away.
  std::string key_id() const;

  /// `bound`: the texts that the password belongs to. `sealed`: nonce, ciphertext and tag as hexadecimal
  /// digits.
  [[nodiscard]] bool seal(const std::vector<std::string>& bound, const secure_string& plain,
                          std::string& sealed, std::string& error) const;
  [[nodiscard]] bool open(const std::vector<std::string>& bound, const std::string& sealed,
                          secure_string& plain, std::string& error) const;

private:
  bool make_key(const std::string& path, std::string& error);
  bool read_key(int fd, const std::string& path, std::string& error);

  unsigned char key_[key_bytes] = {};
};
} // namespace kestrel
