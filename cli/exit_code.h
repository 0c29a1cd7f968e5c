#pragma once

namespace kestrel
{
/// Exit codes of the command line; documented in README.md and never renumbered.
enum Exit_Code : int {
  EXIT_CODE_DONE = 0,
  EXIT_CODE_FAILED = 1,
  EXIT_CODE_USAGE = 2,
  EXIT_CODE_CANCELED = 3,
  EXIT_CODE_SKIPPED = 4
};
} // namespace kestrel
