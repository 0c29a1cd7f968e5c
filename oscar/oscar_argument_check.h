#pragma once

#include <ace/Log_Msg.h>

/// Checks of mandatory arguments. A missing one is a fault of the caller: it is reported at LM_EMERGENCY with
/// the place of the check and a call stack. Macros, because the record must carry that place.

/// Reports the parameter NAME, a string literal, as missing.
#define OSCAR_LOG_NULL_OR_EMPTY(NAME)                                                                        \
  ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, " NAME " is NULL or \"\":\n%?\n"))

/// True when the text ARGUMENT is there; a null pointer and "" are reported under its own name.
#define OSCAR_TEXT_GIVEN(ARGUMENT)                                                                           \
  (!oscar::null_or_empty(ARGUMENT) || [] {                                                                   \
    OSCAR_LOG_NULL_OR_EMPTY(#ARGUMENT);                                                                      \
    return false;                                                                                            \
  }())

/// The same where "" is accepted and only a null pointer is refused.
#define OSCAR_POINTER_GIVEN(ARGUMENT)                                                                        \
  ((ARGUMENT) != nullptr || [] {                                                                             \
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, " #ARGUMENT " is NULL:\n%?\n"));                    \
    return false;                                                                                            \
  }())

namespace oscar
{
inline bool null_or_empty(const char* text)
{
  return text == nullptr || *text == '\0';
}
} // namespace oscar
