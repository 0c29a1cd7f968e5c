#pragma once

#include <string>

namespace kestrel_test
{
/// Folder of the built programs: kestrel, fake_tool and the test programs. Found from the running program.
std::string bin_dir();
/// Folder of the built libraries, oscar.so among them.
std::string lib_dir();
/// Top of the source tree, for golden files.
std::string source_dir();
} // namespace kestrel_test
