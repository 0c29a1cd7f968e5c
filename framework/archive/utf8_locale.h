#pragma once

#include <locale.h>

namespace kestrel
{
/// Gives the calling thread a UTF-8 locale until the scope ends. The archive library converts names from the
/// locale's encoding to UTF-8 and back; in the "C" locale it would change every name that is not ASCII.
/// Where the system has no "C.UTF-8" the thread keeps its locale.
class Utf8_Locale
{
public:
  Utf8_Locale();
  ~Utf8_Locale();
  Utf8_Locale(const Utf8_Locale&) = delete;
  Utf8_Locale& operator=(const Utf8_Locale&) = delete;

private:
  locale_t previous_;
};
} // namespace kestrel
