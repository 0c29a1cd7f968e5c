#pragma once

#include <string>

namespace kestrel_test
{
/// Sets an environment variable (or unsets it, with null) until the end of the scope. Only while no other
/// thread runs that reads the environment.
class Scoped_Env
{
public:
  Scoped_Env(const char* name, const char* value);
  Scoped_Env(const char* name, const std::string& value) : Scoped_Env(name, value.c_str()) {}
  ~Scoped_Env();
  Scoped_Env(const Scoped_Env&) = delete;
  Scoped_Env& operator=(const Scoped_Env&) = delete;

private:
  std::string name_;
  bool was_set_;
  std::string previous_;
};
} // namespace kestrel_test
