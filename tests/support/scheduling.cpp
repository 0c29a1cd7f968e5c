#include "support/scheduling.h"

#include <sstream>

namespace kestrel_test
{
int policy_in_stat(const std::string& stat)
{
  // The program's name may hold blanks and parentheses; what follows it begins with field 3.
  const size_t name_end = stat.rfind(')');
  if (name_end == std::string::npos)
    return -1;
  std::istringstream fields(stat.substr(name_end + 1));
  std::string field;
  const int policy_field = 41;
  for (int number = 3; number <= policy_field; ++number)
    if (!(fields >> field))
      return -1;
  return std::stoi(field);
}
} // namespace kestrel_test
