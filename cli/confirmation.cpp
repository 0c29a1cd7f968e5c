#include "cli/confirmation.h"

#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace kestrel
{
int ask_to_go_on(Command_Output& output, const std::string& work)
{
  if (output.line().assume_yes)
    return EXIT_CODE_DONE;
  if (!::isatty(STDIN_FILENO))
    return output.fail("nobody is there to confirm the " + work + "; give --yes", EXIT_CODE_USAGE);
  std::fputs("Go on? [y/N] ", stderr);
  std::string answer;
  if (!std::getline(std::cin, answer))
    std::fputs("\n", stderr); // nobody has ended the line of the question
  else if (answer == "y" || answer == "Y" || answer == "yes")
    return EXIT_CODE_DONE;
  return output.fail("nothing was done", EXIT_CODE_CANCELED);
}
} // namespace kestrel
