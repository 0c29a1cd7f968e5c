#pragma once

#include "support/temp_dir.h"

#include <string>

namespace kestrel_test
{
/// Puts the scriptable tool at `name` (such as "bin/isql") below a directory, as a symlink with its own
/// script next to it, and returns the tool's path. tests/tools/fake_tool/README.md lists the steps. Calling
/// it again replaces the script.
std::string make_fake_tool(const Temp_Dir& dir, const std::string& name, const std::string& script);
} // namespace kestrel_test
