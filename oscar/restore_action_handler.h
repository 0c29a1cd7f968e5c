#pragma once

#include "oscar/utils_export.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

/// Imports the dump file after the archive has written it.
/// Ownership: the input is not owned and must outlive the transfer.
class Restore_Action_Handler : public Action_Handler
{
public:
  explicit Restore_Action_Handler(Restore_Input const* input) : input_(input) {}
  bool pre_action() override;
  bool post_action() override;

private:
  Restore_Input const* input_;
};

namespace oscar
{
/// A Restore_Action_Handler whose failure fails the restore; an empty pointer, and errno ENOMEM, without
/// memory.
ACE_Refcounted_Auto_Ptr<Action_Handler, ACE_Recursive_Thread_Mutex>
make_action_handler(Restore_Input const* input);
} // namespace oscar
