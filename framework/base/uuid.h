#pragma once

#include <string>

/// Text uuid (36 characters, upper or lower case) to its 16 bytes. 0; for any other text -1, and out16 is all
/// zeros.
int uuid_string_to_binary(const char* text, unsigned char* out16);
/// The 36 characters of a uuid, lower case.
std::string uuid_binary_to_string(const unsigned char* bytes16);

namespace kestrel
{
/// A new random uuid (version 4). Any thread. Ends the process when the kernel gives no random bytes: an
/// identity that may repeat would mix up backups.
std::string make_uuid();
/// The same uuid for the same text, on every host and for ever (version 8, from an XXH3 checksum of the
/// text).
std::string name_uuid(const std::string& text);
/// True for 8-4-4-4-12 hexadecimal digits with hyphens and nothing else.
bool is_uuid(const std::string& text);
} // namespace kestrel
