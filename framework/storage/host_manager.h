#pragma once

#include <mutex>
#include <string>

/// What the running host knows about itself towards the backup server: its access keys, and whether it runs
/// on the backup server's own machine. The agent or the command line fills it once at start; unconfigured it
/// has no keys and is not on the server. A host with one key for both cases need not tell them apart and says false.
/// Threads: all members may be called from any thread. A key text stays valid for the life of the process,
///          also after configure() was called again: replaced keys are kept.
/// Errors:  none.
class Host_Manager
{
public:
  /// The process-wide object; never null.
  static Host_Manager* instance();

  /// True when this host runs on the backup server's own machine.
  bool on_backupd() const;
  /// The host's access key; null when none is configured.
  const char* access_key() const;
  /// The key used when the host shares the backup server's machine; null when none is configured.
  const char* node_access_key() const;

  /// Sets everything at once; a null key means none.
  void configure(bool on_backupd, const char* access_key, const char* node_access_key);

private:
  Host_Manager() = default;

  mutable std::mutex lock_;
  bool on_backupd_ = false;
  const char* access_key_ = nullptr;
  const char* node_access_key_ = nullptr;
};

/// The wire name of a numbered HTTP head: 49 is the access key's header. An unknown number gives null. The
/// second argument is reserved and must be 0.
const char* http_head_string(int head, int reserved);
