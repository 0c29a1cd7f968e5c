#pragma once

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Time_Value.h>

#include <string>

/// What happens around a transfer: MTF_Backup and MTF_Restore call an action before the first byte moves and
/// after the last one did. The base does nothing and succeeds.
/// Threads:   the actions are called on the thread that runs the transfer, one at a time, each at most once
///            a transfer.
/// Ownership: held in ACE_Refcounted_Auto_Ptr<Action_Handler, ACE_Recursive_Thread_Mutex>.
/// Errors:    a false action, or a wait_ that is not 0, fails the transfer unless its failure is ignored.
///            The order of the virtual functions is part of the binary interface.
class Action_Handler
{
public:
  virtual ~Action_Handler();

  /// Before the transfer looks at any file.
  virtual bool pre_action();
  /// Waits for an action that runs on its own; null waits without limit. 0 when it has ended well.
  virtual int wait_pre_action(const ACE_Time_Value* timeout);
  /// For hosts whose actions run on their own; the transfers never call the terminate_ functions.
  virtual int terminate_pre_action();

  /// After every file is complete and closed; not after a failed or canceled transfer.
  virtual bool post_action();
  virtual int wait_post_action(const ACE_Time_Value* timeout);
  virtual int terminate_post_action();

  /// For transfers that read from a snapshot; MTF_Backup and MTF_Restore never call these.
  virtual bool pre_snapshot_action();
  virtual int wait_pre_snapshot_action(const ACE_Time_Value* timeout);
  virtual int terminate_pre_snapshot_action();
  virtual bool post_snapshot_action();
  virtual int wait_post_snapshot_action(const ACE_Time_Value* timeout);
  virtual int terminate_post_snapshot_action();

  /// Whether a failing action leaves the transfer's result alone; false unless set.
  void ignore_pre_action_failure(bool ignore) { ignore_pre_action_failure_ = ignore; }
  bool ignore_pre_action_failure() const { return ignore_pre_action_failure_; }
  void ignore_post_action_failure(bool ignore) { ignore_post_action_failure_ = ignore; }
  bool ignore_post_action_failure() const { return ignore_post_action_failure_; }

private:
  bool ignore_pre_action_failure_ = false;
  bool ignore_post_action_failure_ = false;
};

typedef ACE_Refcounted_Auto_Ptr<Action_Handler, ACE_Recursive_Thread_Mutex> Action_Handler_Ptr;

/// One file of a logical backup: the object that it holds and its full path. Schema and table are empty for a
/// whole database, the table alone for a whole schema.
struct Backup_File {
  std::string database;
  std::string schema;
  std::string table;
  std::string file;
};
