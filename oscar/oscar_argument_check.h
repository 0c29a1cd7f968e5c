#pragma once

#include <ace/Log_Msg.h>

/// Reports a mandatory argument that the caller left out, with the place of the check and a call stack.
/// NAME is the parameter's name as a string literal. Macros, because the record must carry the line of the
/// check.
#define OSCAR_LOG_NULL_OR_EMPTY(NAME)                                                                        \
  ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, " NAME " is NULL or \"\":\n%?\n"))

/// The same where only a null pointer is refused.
#define OSCAR_LOG_NULL(NAME) ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, " NAME " is NULL:\n%?\n"))

namespace oscar
{
inline bool null_or_empty(const char* text)
{
  return text == nullptr || *text == '\0';
}
} // namespace oscar
