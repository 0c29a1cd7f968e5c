#pragma once

#include "archive/action_handler.h"
#include "archive/metadata.h"
#include "storage/client_io.h"
#include "storage/pool.h"
#include "json/value.h"

#include <ace/Log_Msg_Callback.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace MTF
{
typedef std::map<std::string, json_spirit::Value> Opts;

/// First argument of Event_Handler::notify_event().
enum Event : unsigned {
  event_file_begins = 1, ///< "path" (text) and "size": the transfer turns to this file
  event_file_done = 2,   ///< the same keys: all its bytes have moved
};

/// What a transfer tells and asks while it runs.
/// Threads:   called from the thread that runs the transfer, and from that thread only.
/// Ownership: not owned by the transfer; must outlive it. The order of the virtual functions is part of the
///            binary interface.
class Event_Handler
{
public:
  /// The argument is reserved and must be null.
  explicit Event_Handler(void* reserved);
  virtual ~Event_Handler();
  Event_Handler(const Event_Handler&) = delete;
  Event_Handler& operator=(const Event_Handler&) = delete;

  /// Something of enum Event happened. The result is not used; the base returns 0.
  virtual int notify_event(unsigned event, const Opts& opts);
  /// Called whenever the percentage changes, at the start with 0 and at the end of a good transfer with 100:
  /// of `a` bytes of files `b` have moved; `c` bytes have entered or left the storage. The result is not
  /// used; the base returns 0.
  virtual int handle_progress(int progress, unsigned long long a, unsigned long long b, unsigned long long c);
  /// Asked between blocks; true ends the transfer with failure and without its post-action. The base: false.
  virtual bool canceling();
  /// Asked between blocks; while it is true the transfer moves nothing. The base asks the function given to
  /// pausing_when(), without one it is false.
  virtual bool pausing();

protected:
  /// How this handler knows of a pause; called on the transfer's thread.
  void pausing_when(std::function<bool()> question);

private:
  std::function<bool()> pausing_when_;
};

/// One file as it stands in an archive.
struct Stored_Member {
  std::string path;     ///< where it was read
  std::string name;     ///< in the archive: the last two components of the path
  uint64_t size = 0;    ///< bytes
  std::string checksum; ///< XXH3-128 as 32 lower-case hex digits
};
} // namespace MTF

/// Stores files as one archive of a pool: runs the pre-action, reads every source, runs the post-action, and
/// then gives the archive its name.
///
/// Purpose:   few large files that are written by a tool just before. Not for whole trees of files, links or
///            devices: a source must be a regular file. docs/formats.md has the layout and its place in the
///            pool.
/// Threads:   one; everything, the actions included, runs on the caller's.
/// Ownership: `handler` (may be null) and `metadata` are not owned and must outlive the object. While
///            backup() runs, log lines of this thread go to `cb` too when it is not null.
/// Units:     bytes.
/// Errors:    false after one LM_ERROR line with the text of error(); a canceled backup is logged at LM_INFO.
///            An action that fails logs its own reason.
/// Crash:     before backup() has returned true no archive of the number exists, only NAME.partial.
class MTF_Backup
{
public:
  MTF_Backup(MTF::Event_Handler* handler, MTF::Metadata& metadata, std::shared_ptr<ACE_Log_Msg_Callback> cb);
  ~MTF_Backup();
  MTF_Backup(const MTF_Backup&) = delete;
  MTF_Backup& operator=(const MTF_Backup&) = delete;

  /// One file to store. It may not exist yet: the pre-action may create it. A path that was added already is
  /// ignored.
  void add_source(const std::string& path);
  void action_handler(Action_Handler_Ptr handler);
  void pool_uuid(const std::string& id);
  void device_uuid(const std::string& id);
  void host_uuid(const std::string& id);
  void definition_uuid(const std::string& id);
  /// Names the archive's folder in the pool. Must be set, to what a stored file's name may be.
  void minor_resource_id(const std::string& id);
  /// Of the backup; kept in the archive.
  void uuid(const std::string& id);
  /// The number of the last set, 0 when there is none.
  void seq(unsigned long long last);
  /// Before backup() last + 1; after it the number of the set that was written, which is higher when another
  /// archive had that number already: an archive is never replaced.
  unsigned long long seq() const;
  /// A code of compression_to_mtf().
  void compression(unsigned mtf_code);
  void compression_level(int level);
  /// Only noted in the archive: every archive holds its files whole.
  void incremental(bool is_incremental);
  /// How to reach the storage, limits included. backup() adds the pool's address and the compression, and
  /// sets `overwrite` to false.
  Client_IO_Base::Options& extra_client_io_opts();

  /// Runs once. True when the archive is durable in the pool and the storage has counted and summed up the
  /// very bytes that were handed to it; the metadata then has the sizes.
  [[nodiscard]] bool backup(const Pool_Info& pool);
  /// Takes a good backup back: its archive leaves the pool. Without one nothing is done. False, logged, when
  /// the archive stays.
  [[nodiscard]] bool withdraw();

  /// Bytes of all files; of the archive; of the archive as stored. 0 before the end.
  unsigned long long source_size() const;
  unsigned long long set_size() const;
  unsigned long long set_storage_size() const;

  /// After a good backup: the stored file's name, what is in it, and the storage's checksums.
  std::string backup_file() const;
  const std::vector<MTF::Stored_Member>& members() const;
  const std::string& original_checksum() const;
  const std::string& storage_checksum() const;

  /// Why backup() failed; "" when it did not or was canceled.
  const std::string& error() const;
  bool canceled() const;

private:
  class Work;
  std::unique_ptr<Work> work_;
};

/// Brings files of an archive back into a directory and then runs the post-action; or only reads and checks
/// the archive.
///
/// Limits:    every file is written as <directory>/<last two components of its recorded path>; nothing else
///            is ever written, and an archive that asks for it is refused.
/// Threads:   one; everything, the actions included, runs on the caller's. Ownership, units and errors: as
///            MTF_Backup.
/// Crash:     a file appears under its name only after every file of the restore is complete, checked and
///            durable; before that there are only ".kestrel-*.tmp" files in the directory, which a failed
///            restore removes.
class MTF_Restore
{
public:
  MTF_Restore(MTF::Event_Handler* handler, std::shared_ptr<ACE_Log_Msg_Callback> cb);
  ~MTF_Restore();
  MTF_Restore(const MTF_Restore&) = delete;
  MTF_Restore& operator=(const MTF_Restore&) = delete;

  void action_handler(Action_Handler_Ptr handler);
  /// The pool is looked up with get_pool_info().
  void pool_uuid(const std::string& id);
  /// What the archive says of its definition and host must be these; "", on either side, takes any.
  void definition_uuid(const std::string& id);
  void backup_host_uuid(const std::string& id);
  /// These two find the archive in the pool, and the archive must carry them.
  void backup_minor_resource_id(const std::string& id);
  void seq(unsigned long long number);
  /// The backup that the archive must be of; "" (the default) takes any.
  void backup_uuid(const std::string& id);
  Client_IO_Base::Options& extra_client_io_opts();

  /// Chooses files: objects {"dir": <path as it was recorded>}. Without this call everything is restored.
  /// False, logged and with nothing chosen, when the list is empty or an entry has no text "dir".
  [[nodiscard]] bool restore_select(const json_spirit::Array& dirs);
  /// `dir` must exist. The post-action runs when every file has its name; when it fails the files stay. Fails
  /// when a chosen file is not in the archive. An archive that is stored uncompressed is read only where the
  /// chosen files lie, otherwise from its start to its end.
  [[nodiscard]] bool restore(const std::string& dir);
  /// Reads the whole archive as restore() does and compares everything, but writes nothing and runs no
  /// action.
  [[nodiscard]] bool verify();

  /// Bytes of the files restored or verified; of the whole archive.
  unsigned long long size() const;
  unsigned long long set_size() const;
  /// After restore() or verify(): the JSON that the backup was given.
  const json_spirit::Value& metadata() const;
  /// The files that were restored or verified.
  const std::vector<MTF::Stored_Member>& members() const;
  /// After verify(): bytes as stored and the storage's checksums.
  unsigned long long set_storage_size() const;
  const std::string& original_checksum() const;
  const std::string& storage_checksum() const;

  const std::string& error() const;
  bool canceled() const;

private:
  class Work;
  bool run(const std::string* directory);

  std::unique_ptr<Work> work_;
};

namespace kestrel
{
/// The name of a file inside an archive, and below the directory that it is restored into: the last two
/// components of its path. "" when the path does not end in a file's name.
std::string archive_member_name(const std::string& path);

/// The stored file of the archive with this number, in the folder "<pool storage path>/<minor resource id>".
std::string archive_file_name(unsigned long long seq);
} // namespace kestrel
