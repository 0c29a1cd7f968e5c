/// Feeds psql with one transaction: statements before, the archive's script, statements after, and only then
/// "commit". Whatever ends early, psql or the server never sees the commit. Errors: Failure with the server's
/// or the program's reason.
#pragma once

#include "lab/common/text.h"
#include "lab/osrimp/contents.h"

#include <string>
#include <vector>

namespace oscar_lab
{

/// Nobody can say whether the server took the commit.
class Unknown_Outcome : public Failure
{
public:
  using Failure::Failure;
};

struct Import_Script {
  std::string before;
  std::vector<Entry> entries;
  std::vector<std::string> options; // for pg_restore
  std::string after;
};

/// Gives the server's warnings, one a line.
std::vector<std::string> run_script(const Import_Script& script, int file, const Login& login);

} // namespace oscar_lab
