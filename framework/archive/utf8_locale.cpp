#include "archive/utf8_locale.h"

namespace kestrel
{
namespace
{
locale_t utf8_locale()
{
  static const locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return locale;
}
} // namespace

Utf8_Locale::Utf8_Locale() : previous_(utf8_locale() ? ::uselocale(utf8_locale()) : nullptr) {}

Utf8_Locale::~Utf8_Locale()
{
  if (previous_)
    ::uselocale(previous_);
}
} // namespace kestrel
