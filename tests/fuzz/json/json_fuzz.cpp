#include "support/corpus.h"
#include "json/json_util.h"

#include <cstdlib>
#include <string>

// A document is refused with a text, or what was read can be written, and writing is stable from then on.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string text(reinterpret_cast<const char*>(data), size);
  json_spirit::Value value;
  std::string error;
  if (!kestrel::read_json(text, value, error)) {
    if (error.empty() || !value.is_null())
      ::abort();
    return 0;
  }
  const std::string once = kestrel::write_json(value);
  json_spirit::Value again;
  if (!kestrel::read_json(once, again, error) || kestrel::write_json(again) != once)
    ::abort();
  json_spirit::Value pretty;
  if (!kestrel::read_json(kestrel::write_json_pretty(value), pretty, error) || pretty != again)
    ::abort();
  return 0;
}
