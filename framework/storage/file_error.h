#pragma once

#include <string>

namespace kestrel
{
/// "cannot WHAT PATH: REASON; ADVICE" for a failed file call, such as what = "write". The advice is what an
/// operator can do about this error number; without a good one the text ends after the reason. Any thread.
std::string file_error(const char* what, const std::string& path, int error_number);
} // namespace kestrel
