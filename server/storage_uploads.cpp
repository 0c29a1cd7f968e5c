#include "server/storage_uploads.h"

#include "base/clock.h"
#include "base/durable_file.h"
#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/uuid.h"
#include "server/pool_resources.h"
#include "storage/directory_back_end.h"
#include "storage/directory_files.h"
#include "storage/side_file.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>

namespace kestrel
{
namespace
{
const mode_t FILE_MODE = 0600;
const int64_t RETRY_MARGIN_SECONDS = 600;
const int64_t MOST_KEEP_SECONDS = 7 * 24 * 3600;

std::string read_boot_id()
{
  std::string text, error;
  if (!read_whole_file("/proc/sys/kernel/random/boot_id", text, error, 4096))
    return std::string();
  return text.substr(0, text.find('\n'));
}

REST_Error ended(const Upload_Record& record)
{
  return REST_Error(409, "ended",
                    "the unfinished file " + record.folder + "/" + record.name +
                        " cannot be continued: the server lost it or gave it up; run the job again");
}

/// A path that stays below the pool: neither a component that leads elsewhere nor an absolute path.
bool is_folder(const std::string& folder)
{
  const size_t most_folder_bytes = 1024;
  if (folder.size() > most_folder_bytes || std::any_of(folder.begin(), folder.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
      }))
    return false;
  for (size_t begin = 0, end = 0; begin <= folder.size(); begin = end + 1) {
    end = std::min(folder.find('/', begin), folder.size());
    const std::string component = folder.substr(begin, end - begin);
    if (component.empty() || component == "." || component == "..")
      return false;
  }
  return true;
}
} // namespace

struct Storage_Uploads::Upload {
  std::mutex lock;
  Upload_Record record;
  std::string path;
  std::unique_ptr<Stored_File_Writer> writer;
  uint64_t offset = 0;
  /// Of all bytes; not known of a file that was taken up again.
  bool summed = true;
  Xxh3_128 sum;
  /// Why the file can neither be continued nor finished.
  std::string failure;
  int64_t used_msec = clock().monotonic_msec();
  /// Of a file that is being sent; may be read without the lock.
  std::atomic<bool> is_open{true};

  void close()
  {
    is_open = false;
    writer.reset();
    used_msec = clock().monotonic_msec();
  }
};

void connect_folder(Storage_Back_End& back_end, const Pool_Info& pool, const std::string& folder)
{
  if (!is_folder(folder))
    throw REST_Error(400, "bad_request",
                     "this cannot be a folder of a pool: it must be a relative path of at most 1024 bytes, "
                     "without control characters and without \".\", \"..\" or nothing between its slashes");
  if (!pool.back_end.empty())
    throw REST_Error(409, "pool", "the pool " + pool.name + " does not lie on this server");
  Client_IO_Base::Options options;
  options.storage_path = pool.storage_path;
  options.pool_marked = pool.marked;
  // What is confirmed must survive this process, so it goes to the kernel at once: a limited stream is not
  // gathered for writes past the page cache.
  options.rate_limits.write_limit(~uint64_t(0));
  std::string error;
  if (!back_end.connect(pool.storage_path + "/" + folder, options, error))
    throw REST_Error(507, "storage", error);
}

Storage_Uploads::Storage_Uploads(const std::string& folder, const Pool_Registry& pools, const Limits& limits)
    : folder_(folder), pools_(pools), limits_(limits), boot_id_(read_boot_id())
{
}

Storage_Uploads::~Storage_Uploads()
{
  stop();
}

std::string Storage_Uploads::note_path(const std::string& id) const
{
  return folder_ + "/" + id + ".json";
}

void Storage_Uploads::note(Upload& upload)
{
  std::string error;
  if (!write_file_durably(note_path(upload.record.id), upload_note(upload.record), FILE_MODE, error))
    throw REST_Error(507, "storage", "the server cannot note what it stores: " + error);
}

void Storage_Uploads::drop(const std::string& id)
{
  ignore_result(unlink_if_there(note_path(id)), "an old note is found again and dropped then");
  std::lock_guard<std::mutex> guard(lock_);
  uploads_.erase(id);
}

void Storage_Uploads::load()
{
  std::error_code failure;
  std::filesystem::create_directories(folder_, failure);
  std::filesystem::permissions(folder_, std::filesystem::perms::owner_all, failure);
  for (const auto& entry : std::filesystem::directory_iterator(folder_, failure))
    if (entry.path().extension() == ".json")
      load_one(entry.path().string());
  if (failure)
    ACE_ERROR((LM_ERROR, "(%P|%t) Storage_Uploads::load: cannot use %C: %C\n", folder_.c_str(),
               failure.message().c_str()));
}

void Storage_Uploads::load_one(const std::string& path)
{
  try {
    std::string text, error;
    if (!read_whole_file(path, text, error))
      throw std::runtime_error(error);
    auto upload = std::make_shared<Upload>();
    upload->record = upload_from_note(text);
    const Upload_Record& record = upload->record;
    upload->summed = false;
    Pool_Info pool;
    if (pools_.find(record.pool_id, pool, error))
      upload->path = pool.storage_path + "/" + record.folder + "/" + record.name;
    Unfinished_File left;
    if (record.state == Upload_Record::open && !upload->path.empty())
      upload->writer = resume_directory_file(upload->path, left, error);
    if (upload->writer && left.inode != record.inode)
      upload->writer.reset();
    upload->offset = left.bytes;
    upload->is_open = upload->writer != nullptr;
    if (record.state == Upload_Record::open && record.boot_id != boot_id_)
      upload->failure = "the server's machine was restarted while " + upload->path +
                        " was being stored: what it confirmed may be lost; run the job again";
    else if (upload->writer)
      ACE_DEBUG((LM_NOTICE, "(%P|%t) Storage_Uploads::load: %C goes on at byte %Q\n", upload->path.c_str(),
                 left.bytes));
    std::lock_guard<std::mutex> guard(lock_);
    uploads_[record.id] = upload;
  } catch (const std::exception& failure) {
    ACE_ERROR(
        (LM_WARNING, "(%P|%t) Storage_Uploads::load: %C cannot be used: %C\n", path.c_str(), failure.what()));
  }
}

void Storage_Uploads::start()
{
  cleaner_ = std::thread([this] { run(); });
}

void Storage_Uploads::stop()
{
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopped_ = true;
    stop_.notify_all();
  }
  if (cleaner_.joinable())
    cleaner_.join();
}

/// No heartbeat on purpose. A turn waits for nothing but the disks of pools, and one that hangs, such as that
/// of a file server that is away, holds up neither requests nor the files of other pools: all that stays
/// undone is the removal of what nobody continues. A restart would not free a thread that hangs in the
/// kernel, would end the transfers to all other pools, and would then hang at the same disk in load().
void Storage_Uploads::run()
{
  const auto interval = std::chrono::seconds(limits_.clean_up_seconds);
  for (;;) {
    {
      std::unique_lock<std::mutex> guard(lock_);
      if (stop_.wait_for(guard, interval, [this] { return stopped_; }))
        return;
    }
    clean_up();
  }
}

Storage_Uploads::Upload_Ptr Storage_Uploads::find(const std::string& id, const std::string& host_uuid)
{
  std::lock_guard<std::mutex> guard(lock_);
  const auto found = uploads_.find(id);
  // Whose an upload is does not change, so it may be read without its own lock.
  if (found != uploads_.end() && found->second->record.host_uuid == host_uuid)
    return found->second;
  throw REST_Error(404, "unknown_upload",
                   "the server knows no such unfinished file: it was given up, or the server's notes were "
                   "lost; run the job again");
}

std::vector<Storage_Uploads::Upload_Ptr>
Storage_Uploads::of_file(const std::string& pool_id, const std::string& folder, const std::string& name)
{
  std::vector<Upload_Ptr> found;
  std::lock_guard<std::mutex> guard(lock_);
  for (const auto& [id, upload] : uploads_)
    if (upload->record.pool_id == pool_id && upload->record.folder == folder && upload->record.name == name)
      found.push_back(upload);
  return found;
}

unsigned Storage_Uploads::open_files(const std::string& host_uuid) const
{
  unsigned number = 0;
  for (const auto& [id, upload] : uploads_)
    number += upload->is_open && upload->record.host_uuid == host_uuid ? 1 : 0;
  return number;
}

uint64_t Storage_Uploads::begin(const Upload_Record& wanted)
{
  std::string error;
  if (!is_uuid(wanted.id))
    throw REST_Error(400, "bad_request", "\"upload\" must be a uuid");
  if (!is_stored_file_name(wanted.name, error))
    throw REST_Error(400, "bad_request", error);
  Upload_Ptr upload;
  std::unique_lock<std::mutex> own;
  bool known = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    known = uploads_.count(wanted.id) != 0;
    if (!known && open_files(wanted.host_uuid) >= limits_.open_of_host)
      throw REST_Error(429, "too_many",
                       "this host is sending " + std::to_string(limits_.open_of_host) +
                           " files already; run fewer jobs at once");
    Upload_Ptr& place = uploads_[wanted.id];
    if (!known) {
      place = std::make_shared<Upload>();
      place->record = wanted;
      // Locked before anybody else can find it: a repeated request waits until this one is through.
      own = std::unique_lock<std::mutex>(place->lock);
    }
    upload = place;
  }
  if (known) {
    const std::lock_guard<std::mutex> guard(upload->lock);
    const Upload_Record& record = upload->record;
    if (record.host_uuid != wanted.host_uuid || record.pool_id != wanted.pool_id ||
        record.folder != wanted.folder || record.name != wanted.name)
      throw REST_Error(409, "upload_exists", "this upload id is taken");
    if (!upload->writer)
      throw ended(record);
    return upload->offset;
  }
  try {
    create(*upload);
    return 0;
  } catch (...) {
    upload->writer.reset();
    own.unlock();
    drop(wanted.id);
    throw;
  }
}

void Storage_Uploads::create(Upload& upload)
{
  Upload_Record& record = upload.record;
  const Pool_Info pool = find_pool_or_refuse(pools_, record.pool_id);
  Directory_Back_End back_end;
  connect_folder(back_end, pool, record.folder);
  std::string error;
  upload.writer = back_end.create(record.name, record.overwrite, error);
  if (!upload.writer && errno == EEXIST)
    throw REST_Error(409, "name_taken", error);
  if (!upload.writer)
    throw REST_Error(507, "storage", error);
  upload.path = pool.storage_path + "/" + record.folder + "/" + record.name;
  struct stat status;
  if (file_system().stat(partial_file_path(upload.path).c_str(), &status) != 0)
    throw REST_Error(507, "storage", "the unfinished file vanished: " + partial_file_path(upload.path));
  record.inode = status.st_ino;
  record.boot_id = boot_id_;
  record.created = clock().now();
  record.keep_seconds = std::min<uint64_t>(record.keep_seconds, MOST_KEEP_SECONDS);
  note(upload);
}

uint64_t Storage_Uploads::offset(const std::string& id, const std::string& host_uuid)
{
  const Upload_Ptr upload = find(id, host_uuid);
  const std::lock_guard<std::mutex> guard(upload->lock);
  upload->used_msec = clock().monotonic_msec();
  if (!upload->failure.empty())
    throw REST_Error(507, "storage", upload->failure);
  if (!upload->writer && upload->record.state != Upload_Record::finished)
    throw ended(upload->record);
  return upload->offset;
}

uint64_t Storage_Uploads::write(const std::string& id, const std::string& host_uuid, uint64_t at,
                                const std::string& bytes)
{
  const Upload_Ptr upload = find(id, host_uuid);
  const std::lock_guard<std::mutex> guard(upload->lock);
  upload->used_msec = clock().monotonic_msec();
  if (!upload->failure.empty())
    throw REST_Error(507, "storage", upload->failure);
  if (!upload->writer)
    throw ended(upload->record);
  if (at > upload->offset)
    throw REST_Error(409, "offset", "the unfinished file ends at byte " + std::to_string(upload->offset));
  const uint64_t known = upload->offset - at;
  if (known >= bytes.size())
    return upload->offset;
  const char* data = bytes.data() + known;
  const unsigned count = static_cast<unsigned>(bytes.size() - known);
  std::string error;
  if (!upload->writer->write(data, count, error)) {
    upload->failure = error;
    throw REST_Error(507, "storage", error);
  }
  upload->sum.update(data, count);
  upload->offset += count;
  return upload->offset;
}

/// Whether the file has its name already, from a commit of which nobody heard.
bool Storage_Uploads::is_published(Upload& upload, uint64_t size, const std::string& side_file)
{
  std::string error;
  const std::unique_ptr<Stored_File_Reader> file =
      upload.path.empty() ? nullptr : open_directory_file(upload.path, error);
  if (!file || file->size() != size || file->side_file() != side_file)
    return false;
  return file_system().fsync_directory(parent_of(upload.path).c_str()) == 0;
}

void Storage_Uploads::commit(const std::string& id, const std::string& host_uuid, uint64_t size,
                             const std::string& side_file)
{
  const Upload_Ptr upload = find(id, host_uuid);
  {
    const std::lock_guard<std::mutex> guard(upload->lock);
    upload->used_msec = clock().monotonic_msec();
    Side_File side;
    std::string error;
    if (!parse_side_file(side_file, side, error) || side.storage_size != size)
      throw REST_Error(422, "damaged",
                       "the side file of " + upload->record.name + " cannot be right: " + error);
    // What was published is whole, whatever became of the server since.
    const bool published = !upload->writer && is_published(*upload, size, side_file);
    if (!published && !upload->failure.empty())
      throw REST_Error(507, "storage", upload->failure);
    if (!published && !upload->writer)
      throw ended(upload->record);
    if (!published) {
      if (upload->offset != size)
        throw REST_Error(409, "offset", "the unfinished file ends at byte " + std::to_string(upload->offset));
      if (upload->summed && upload->sum.hex() != side.storage_checksum)
        throw REST_Error(422, "damaged",
                         "what arrived of " + upload->record.name +
                             " is not what was sent; run the job again");
      if (!upload->writer->commit(side_file, error)) {
        upload->failure = error;
        throw REST_Error(507, "storage", error);
      }
    }
    upload->close();
    upload->failure.clear();
    upload->offset = size;
    upload->record.state = Upload_Record::finished;
    try {
      note(*upload);
    } catch (const REST_Error& failure) {
      // The file is stored; a server that has restarted just would not know whose it is.
      ACE_ERROR((LM_WARNING, "(%P|%t) Storage_Uploads::commit: %C\n", failure.what()));
    }
  }
  for (const Upload_Ptr& other : of_file(upload->record.pool_id, upload->record.folder, upload->record.name))
    if (other != upload)
      drop(other->record.id);
}

void Storage_Uploads::give_up(const std::string& id, const std::string& host_uuid, bool keep)
{
  Upload_Ptr upload;
  try {
    upload = find(id, host_uuid);
  } catch (const REST_Error&) {
    return; // a repeated farewell
  }
  {
    const std::lock_guard<std::mutex> guard(upload->lock);
    if (upload->record.state != Upload_Record::open)
      return;
    if (keep) {
      upload->close();
      upload->record.state = Upload_Record::left;
      note(*upload);
      return;
    }
    if (upload->writer)
      upload->writer->discard();
    upload->close();
  }
  drop(id);
}

std::string Storage_Uploads::sender(const std::string& pool_id, const std::string& folder,
                                    const std::string& name)
{
  std::string host;
  int best = 0;
  for (const Upload_Ptr& upload : of_file(pool_id, folder, name)) {
    const std::lock_guard<std::mutex> guard(upload->lock);
    // Who is writing the file counts more than who finished one of this name before, and both more than who
    // left something of it or cannot go on with it.
    const Upload_Record::State state = upload->record.state;
    const int rank = upload->writer ? 4 : state == Upload_Record::finished ? 3 : state == Upload_Record::open ? 2 : 1;
    if (rank > best)
      host = upload->record.host_uuid;
    best = std::max(best, rank);
  }
  return host;
}

void Storage_Uploads::forget(const std::string& pool_id, const std::string& folder, const std::string& name)
{
  for (const Upload_Ptr& upload : of_file(pool_id, folder, name)) {
    {
      const std::lock_guard<std::mutex> guard(upload->lock);
      if (upload->writer)
        upload->writer->discard();
      upload->close();
    }
    drop(upload->record.id);
  }
}

void Storage_Uploads::clean_up()
{
  std::vector<Upload_Ptr> all;
  {
    std::lock_guard<std::mutex> guard(lock_);
    for (const auto& [id, upload] : uploads_)
      all.push_back(upload);
  }
  for (const Upload_Ptr& upload : all) {
    // One that is locked is in use.
    std::unique_lock<std::mutex> own(upload->lock, std::try_to_lock);
    if (!own)
      continue;
    const Upload_Record& record = upload->record;
    const int64_t idle = (clock().monotonic_msec() - upload->used_msec) / 1000;
    const int64_t patience =
        std::max(limits_.idle_seconds, static_cast<int64_t>(record.keep_seconds) + RETRY_MARGIN_SECONDS);
    const int64_t limit = record.state == Upload_Record::open ? patience : limits_.remember_seconds;
    if (idle <= limit)
      continue;
    if (upload->writer) {
      ACE_DEBUG((LM_NOTICE, "(%P|%t) Storage_Uploads::clean_up: nobody continues %C; it is removed\n",
                 upload->path.c_str()));
      upload->writer->discard();
      upload->close();
    }
    const std::string id = record.id;
    own.unlock();
    drop(id);
  }
}
} // namespace kestrel
