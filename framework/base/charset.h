#pragma once

#include <string>

/// UTF-8 text for use in the code page of the process's locale (the host calls setlocale once at its start).
/// Errors:    text that is not valid UTF-8, or that the code page cannot hold, passes through byte for byte,
///            so the result is empty only when the text is. A null pointer counts as "".
/// Threads:   any.
/// Ownership: c_local() points into the object; keep a temporary alive while the pointer is used.
class UTF16_String
{
public:
  explicit UTF16_String(const char* utf8);
  const char* c_local() const { return local_.c_str(); }

private:
  std::string local_;
};

/// The other way: text in the local code page, given back as UTF-8. The same rules.
class Local_String
{
public:
  explicit Local_String(std::string local);
  std::string to_utf8() const;

private:
  std::string local_;
};

namespace kestrel
{
/// Converts between two code pages by their iconv names. False, and `converted` untouched, when a character
/// is invalid or has no place in the other one. `converted` may be `text` itself.
[[nodiscard]] bool convert_charset(const char* to, const char* from, const std::string& text,
                                   std::string& converted);
} // namespace kestrel
