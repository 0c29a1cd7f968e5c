#include "cli/confirmation.h"

#include "cli/interruptible_read.h"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace kestrel
{
namespace
{
/// False when there is no whole line: the input has ended or a signal has come.
bool read_answer(Interruptible_Read& input, std::string& answer)
{
  for (char byte = 0; input.read(STDIN_FILENO, &byte, 1) == 1;) {
    if (byte == '\n')
      return true;
    answer += byte;
  }
  return false;
}
} // namespace

int ask_to_go_on(Command_Output& output, const std::string& work)
{
  if (output.line().assume_yes)
    return EXIT_CODE_DONE;
  if (!::isatty(STDIN_FILENO))
    return output.fail("nobody is there to confirm the " + work + "; give --yes", EXIT_CODE_USAGE);
  std::string answer;
  {
    Interruptible_Read input;
    std::fputs("Go on? [y/N] ", stderr);
    if (!read_answer(input, answer))
      std::fputs("\n", stderr); // nobody has ended the line of the question
    else if (answer == "y" || answer == "Y" || answer == "yes")
      return EXIT_CODE_DONE;
  }
  return output.fail("nothing was done", EXIT_CODE_CANCELED);
}
} // namespace kestrel
