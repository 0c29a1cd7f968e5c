#include "instances/account_cipher.h"
#include "instances/instance_files.h"
#include "support/corpus.h"

#include <cstdlib>
#include <string>

// A file is refused with a text, or writing what was read and reading it again gives the same.
template <class Content>
static void round_trip(const std::string& text, bool (*parse)(const std::string&, Content&, std::string&),
                       std::string (*write)(const Content&))
{
  Content content, again;
  std::string error;
  if (!parse(text, content, error)) {
    if (error.empty())
      ::abort();
    return;
  }
  const std::string written = write(content);
  if (!parse(written, again, error) || write(again) != written)
    ::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string text(reinterpret_cast<const char*>(data), size);
  round_trip<kestrel::Instance_Map>(text, kestrel::parse_instances, kestrel::instances_text);
  round_trip<kestrel::Account_Map>(text, kestrel::parse_accounts, kestrel::accounts_text);

  // Nothing decrypts that was not sealed here. The key of an unused cipher is all zeros.
  const kestrel::Account_Cipher cipher;
  secure_string plain;
  std::string error;
  if (cipher.open({"oscar", "DB"}, text, plain, error) || error.empty())
    ::abort();
  return 0;
}
