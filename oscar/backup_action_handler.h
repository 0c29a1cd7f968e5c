#pragma once

#include "oscar/utils_export.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

/// Exports the dump files before the archive reads them.
/// Ownership: the input is not owned and must outlive the transfer.
class Backup_Action_Handler : public Action_Handler
{
public:
  explicit Backup_Action_Handler(Backup_Input const* input) : input_(input) {}
  bool pre_action() override;
  bool post_action() override;

private:
  Backup_Input const* input_;
};

namespace oscar
{
/// A Backup_Action_Handler whose failure fails the backup; an empty pointer, and errno ENOMEM, without
/// memory.
ACE_Refcounted_Auto_Ptr<Action_Handler, ACE_Recursive_Thread_Mutex>
make_action_handler(Backup_Input const* input);
} // namespace oscar
