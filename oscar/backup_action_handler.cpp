#include "oscar/backup_action_handler.h"

#include "oscar/oscar_argument_check.h"

#include <cerrno>
#include <new>

bool Backup_Action_Handler::pre_action()
{
  return OSCAR_POINTER_GIVEN(input_) && backup(input_);
}

bool Backup_Action_Handler::post_action()
{
  return true;
}

namespace oscar
{
ACE_Refcounted_Auto_Ptr<Action_Handler, ACE_Recursive_Thread_Mutex>
make_action_handler(Backup_Input const* input)
{
  typedef ACE_Refcounted_Auto_Ptr<Action_Handler, ACE_Recursive_Thread_Mutex> Handler_Ptr;
  Action_Handler* const handler = new (std::nothrow) Backup_Action_Handler(input);
  if (!handler) {
    errno = ENOMEM;
    return Handler_Ptr();
  }
  handler->ignore_pre_action_failure(false);
  return Handler_Ptr(handler);
}
} // namespace oscar
