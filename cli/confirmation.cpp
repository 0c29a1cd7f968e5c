#include "cli/confirmation.h"

#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace kestrel
{
int ask_to_go_on(Session& session, const std::string& work)
{
  if (session.line().assume_yes)
    return EXIT_CODE_DONE;
  if (!::isatty(STDIN_FILENO))
    return session.fail("nobody is there to confirm the " + work + "; give --yes", EXIT_CODE_USAGE);
  std::fputs("Go on? [y/N] ", stderr);
  std::string answer;
  if (std::getline(std::cin, answer) && (answer == "y" || answer == "Y" || answer == "yes"))
    return EXIT_CODE_DONE;
  return session.fail("nothing was done", EXIT_CODE_CANCELED);
}
} // namespace kestrel
