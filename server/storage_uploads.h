#pragma once

#include "base/checksum.h"
#include "rpc/rest_router.h"
#include "server/upload_note.h"
#include "storage/back_end.h"
#include "storage/pool_registry.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kestrel
{
/// The files that agents are sending, and those they sent within the last day.
///
/// Purpose:   each file is written by the directory back end of its pool; this keeps its place over lost
///            connections and restarts of the server, and knows which host sent it.
/// Threads:   any; requests for one file are carried out one after the other.
/// Ownership: owns the writers; start() runs one thread that gives up what nobody continues.
/// Units:     bytes, seconds.
/// Errors:    REST_Error: 404 unknown_upload, 409 name_taken / offset / ended, 422 damaged, 429 too_many,
///            507 storage.
/// Crash:     a note in the state directory outlives the server. With it the unfinished file goes on where it
///            ends; a commit whose answer got lost is recognised by the file and its side file.
class Storage_Uploads
{
public:
  struct Limits {
    /// An unfinished file is removed when nothing was heard of it for this time, or for the time that its
    /// agent asked for if that is longer.
    int64_t idle_seconds = 3600;
    /// How long it is known who sent a finished file.
    int64_t remember_seconds = 24 * 3600;
    int64_t clean_up_seconds = 60;
    /// Files that one host may be sending at the same time.
    unsigned open_of_host = 64;
  };

  /// `folder` keeps the notes and is made when it is missing.
  Storage_Uploads(const std::string& folder, const Pool_Registry& pools, const Limits& limits);
  ~Storage_Uploads(); ///< unfinished files stay as they are
  Storage_Uploads(const Storage_Uploads&) = delete;
  Storage_Uploads& operator=(const Storage_Uploads&) = delete;

  /// Takes up what an earlier server left. Notes that cannot be read are logged and left alone.
  void load();
  void start();
  void stop();

  /// Begins a file, or finds the one that this request began before. Where it ends so far.
  uint64_t begin(const Upload_Record& wanted);
  uint64_t offset(const std::string& id, const std::string& host_uuid);
  /// Adds what is not there yet of the bytes that belong at `at`; where the file ends then.
  uint64_t write(const std::string& id, const std::string& host_uuid, uint64_t at, const std::string& bytes);
  void commit(const std::string& id, const std::string& host_uuid, uint64_t size,
              const std::string& side_file);
  /// `keep`: what is there stays, recognisable as unfinished.
  void give_up(const std::string& id, const std::string& host_uuid, bool keep);

  /// Whose the file is: the host that sent it or is sending it; "" when that is not known (any more).
  std::string sender(const std::string& pool_id, const std::string& folder, const std::string& name);
  /// Forgets all of a file that is being removed; unfinished ones of this host are given up.
  void forget(const std::string& pool_id, const std::string& folder, const std::string& name);
  /// What the thread does now and then.
  void clean_up();

private:
  struct Upload;
  typedef std::shared_ptr<Upload> Upload_Ptr;

  Upload_Ptr find(const std::string& id, const std::string& host_uuid);
  std::vector<Upload_Ptr> of_file(const std::string& pool_id, const std::string& folder,
                                  const std::string& name);
  /// To be called with lock_ held.
  unsigned open_files(const std::string& host_uuid) const;
  void create(Upload& upload);
  void load_one(const std::string& path);
  void note(Upload& upload);
  void drop(const std::string& id);
  std::string note_path(const std::string& id) const;
  bool is_published(Upload& upload, uint64_t size, const std::string& side_file);
  void run();

  const std::string folder_;
  const Pool_Registry pools_;
  const Limits limits_;
  const std::string boot_id_;
  std::mutex lock_;
  std::map<std::string, Upload_Ptr> uploads_;
  std::condition_variable stop_;
  bool stopped_ = false;
  std::thread cleaner_;
};

/// A folder of a pool, below which names can be created, opened and removed. Throws REST_Error when the
/// folder cannot be one or the pool's directory is not there.
void connect_folder(Storage_Back_End& back_end, const Pool_Info& pool, const std::string& folder);
} // namespace kestrel
