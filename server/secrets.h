#pragma once

#include <string>

namespace kestrel
{
/// Keys, tokens and passwords, as the server keeps them.
/// Threads: any.
/// Errors:  what needs random bytes or memory ends in a std::system_error or std::bad_alloc; a server without
///          random numbers must not go on.

/// `bytes` random bytes in hexadecimal.
std::string random_hex(unsigned bytes);
/// SHA-256 of a text in hexadecimal. For keys and tokens, which are random; never for passwords.
std::string sha256_hex(const std::string& text);
/// Whether two texts are equal, in a time that tells only their lengths.
bool equal_secrets(const std::string& one, const std::string& other);

/// The password as "scrypt$<log2 of N>$<r>$<p>$<salt>$<hash>". Takes a tenth of a second and 32 MiB on
/// purpose; at most two threads at a time do so, others wait.
std::string hash_password(const std::string& password);
/// False also for a text that is no hash. Takes as long as hash_password().
bool check_password(const std::string& password, const std::string& hash);
/// The cost of passwords that are hashed from now on, as the base 2 logarithm of N: 15, unless a test with
/// many users has no time. 10 to 15.
void set_password_cost(unsigned log2_n);
/// For names that do not exist: takes the time that a check takes.
void check_no_password(const std::string& password);
} // namespace kestrel
