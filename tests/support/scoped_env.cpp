#include "support/scoped_env.h"

#include <cstdlib>

namespace kestrel_test
{
namespace
{
void set(const std::string& name, const char* value)
{
  if (value)
    ::setenv(name.c_str(), value, 1);
  else
    ::unsetenv(name.c_str());
}
} // namespace

Scoped_Env::Scoped_Env(const char* name, const char* value) : name_(name)
{
  const char* const previous = ::getenv(name);
  was_set_ = previous != nullptr;
  previous_ = previous ? previous : "";
  set(name_, value);
}

Scoped_Env::~Scoped_Env()
{
  set(name_, was_set_ ? previous_.c_str() : nullptr);
}
} // namespace kestrel_test
