#include "base/version.h"

namespace kestrel
{
const char* version()
{
  return KESTREL_VERSION;
}
} // namespace kestrel
