/// The lock that lets one program at a time work on the data of an instance: its server, a restore, or a
/// backup of the stopped server.
/// Processes: the lock goes along to children that keep its descriptor, and is free again when the last of
///            them is gone. The lock file names the use; that text is a hint and says nothing once the lock is free.
/// Errors:    Failure when the lock file cannot be opened or written.
#pragma once

#include "lab/common/instance_files.h"

namespace oscar_lab
{

class Instance_Lock
{
public:
  enum class State {
    held,
    server_runs, // somebody else's server has come up in the meantime
    busy
  };

  /// Waits at most timeout_msec for a backup or a restore. The processes of a server that was killed need
  /// longer to end on a busy machine, and a server that is coming up has a restore to finish first: for those
  /// the wait is remains_timeout_msec.
  Instance_Lock(const Instance_Files& files, const char* use, int timeout_msec,
                int remains_timeout_msec = 60 * 1000);
  State state() const { return state_; }
  int fd() const { return fd_.get(); }

private:
  bool try_to_take();
  bool is_of_server() const;

  Descriptor fd_;
  State state_ = State::busy;
};

/// What a server writes into the lock file.
extern const char* const use_of_server;

} // namespace oscar_lab
