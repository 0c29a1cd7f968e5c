#include "archive/mtf.h"

#include "archive/archive_reader.h"
#include "archive/restored_files.h"
#include "archive/transfer_watch.h"
#include "base/ignore_result.h"
#include "base/log.h"
#include "base/scope_guard.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <exception>
#include <new>
#include <set>

namespace
{
const unsigned block_bytes = 256 * 1024;
} // namespace

class MTF_Restore::Work
{
public:
  Work(MTF::Event_Handler* handler, std::shared_ptr<ACE_Log_Msg_Callback> cb)
      : log_(std::move(cb)), watch_(handler)
  {
  }

  /// Without a directory everything is read and nothing written.
  bool run(const std::string* directory);
  bool select(const json_spirit::Array& dirs);

  const std::shared_ptr<ACE_Log_Msg_Callback> log_;
  Action_Handler_Ptr action_;
  std::string pool_uuid_, definition_uuid_, host_uuid_, minor_resource_id_, backup_uuid_;
  unsigned long long seq_ = 0;
  Client_IO_Base::Options options_;
  unsigned long long size_ = 0, set_size_ = 0, set_storage_size_ = 0;
  std::string original_checksum_, storage_checksum_;
  json_spirit::Value metadata_;
  std::vector<MTF::Stored_Member> members_;
  std::string error_;
  bool canceled_ = false;

private:
  bool fail(const std::string& reason);
  bool fail_reading(const std::string& reason);
  bool go_on();
  bool is_chosen(const std::string& path) const;
  bool connect();
  bool check_record(const kestrel::Archive_Record& record);
  bool check_identity(const kestrel::Archive_Record& record);
  bool read_all(kestrel::Restored_Files* files);
  bool read_stream(kestrel::Archive_Reader& reader, kestrel::Restored_Files* files);
  bool read_file(kestrel::Archive_Reader& reader, kestrel::Restored_Files* files);
  bool read_parts(kestrel::Restored_Files& files, bool& done);
  bool read_part(const kestrel::Archive_Index::File& file, kestrel::Restored_Files& files);
  void moved(uint64_t done, uint64_t total, uint64_t archive_bytes);

  kestrel::Transfer_Watch watch_;
  Client_IO_Ex client_;
  bool verifying_ = false;
  bool choosing_ = false;
  std::set<std::string> chosen_; // paths as the record has them
  uint64_t chosen_size_ = 0;
  uint64_t archive_bytes_ = 0; // read so far
};

bool MTF_Restore::Work::fail(const std::string& reason)
{
  error_ = reason;
  return false;
}

// The reader's reason, or the storage's when the reader has none.
bool MTF_Restore::Work::fail_reading(const std::string& reason)
{
  return fail(reason.empty() ? client_.error() : kestrel::archive_file_name(seq_) + ": " + reason);
}

bool MTF_Restore::Work::go_on()
{
  canceled_ = !watch_.go_on();
  return !canceled_;
}

bool MTF_Restore::Work::select(const json_spirit::Array& dirs)
{
  std::set<std::string> paths;
  for (const json_spirit::Value& value : dirs) {
    const json_spirit::Value dir =
        value.type() == json_spirit::obj_type ? json_spirit::find_value(value.get_obj(), "dir") : nullptr;
    if (dir.type() != json_spirit::str_type || dir.get_str().empty())
      return fail("an entry of the list of files to restore has no \"dir\"");
    paths.insert(kestrel::utf8_without_invalid(dir.get_str()));
  }
  if (paths.empty())
    return fail("the list of files to restore is empty");
  chosen_.swap(paths);
  choosing_ = true;
  return true;
}

bool MTF_Restore::Work::is_chosen(const std::string& path) const
{
  return !choosing_ || verifying_ || chosen_.count(path) != 0;
}

bool MTF_Restore::Work::connect()
{
  Pool_Info pool;
  if (!get_pool_info(pool_uuid_, "", pool, false, 0, nullptr, true, nullptr, nullptr, false))
    return fail("the pool " + pool_uuid_ + " is not known here");
  Client_IO_Base::Options options = options_;
  if (!set_options_by_pool(options, pool))
    return fail("the pool has neither a directory nor a host");
  return client_.connect(pool.storage_path + "/" + minor_resource_id_, options) || fail(client_.error());
}

bool MTF_Restore::Work::check_identity(const kestrel::Archive_Record& record)
{
  const struct {
    const char* what;
    const std::string &found, &wanted;
    bool any_when_empty;
  } rules[] = {
      {"minor resource id", record.minor_resource_id, minor_resource_id_, false},
      {"host", record.host_uuid, host_uuid_, true},
      {"definition", record.definition_uuid, definition_uuid_, true},
      {"backup", record.uuid, backup_uuid_, true},
  };
  for (const auto& rule : rules)
    if (rule.found != rule.wanted && !(rule.any_when_empty && (rule.found.empty() || rule.wanted.empty())))
      return fail_reading(std::string("it is the archive of another ") + rule.what + ": " +
                          kestrel::shown_name(rule.found) + " instead of " +
                          kestrel::shown_name(rule.wanted));
  if (record.seq != seq_)
    return fail_reading("it says that it is number " + std::to_string(record.seq));
  return true;
}

// Everything that can be refused is refused before the first byte is written.
bool MTF_Restore::Work::check_record(const kestrel::Archive_Record& record)
{
  if (!check_identity(record))
    return false;
  std::set<std::string> missing;
  if (!verifying_)
    missing = chosen_;
  chosen_size_ = 0;
  for (const kestrel::Archive_Record::File& file : record.files)
    if (is_chosen(file.path)) {
      missing.erase(file.path);
      chosen_size_ += file.size;
    }
  if (!missing.empty())
    return fail_reading("it has no file " + kestrel::shown_name(*missing.begin()));
  metadata_ = record.metadata;
  return true;
}

void MTF_Restore::Work::moved(uint64_t done, uint64_t total, uint64_t archive_bytes)
{
  archive_bytes_ = archive_bytes;
  watch_.moved(done, total, size_, chosen_size_, archive_bytes);
}

bool MTF_Restore::Work::read_file(kestrel::Archive_Reader& reader, kestrel::Restored_Files* files)
{
  const kestrel::Archive_Record::File& file = reader.file();
  watch_.file_event(MTF::event_file_begins, file.path, file.size);
  if (files && !files->begin(file.name, reader.mode(), error_))
    return false;
  const char* data = nullptr;
  for (int count; (count = reader.read(data)) != 0;) {
    if (count < 0)
      return fail_reading(reader.error());
    if (files && !files->write(data, static_cast<unsigned>(count), error_))
      return false;
    size_ += static_cast<unsigned>(count);
    moved(size_, chosen_size_, reader.bytes_taken());
    if (!go_on())
      return false;
  }
  if (files && !files->end(error_))
    return false;
  watch_.file_event(MTF::event_file_done, file.path, file.size);
  return true;
}

bool MTF_Restore::Work::read_stream(kestrel::Archive_Reader& reader, kestrel::Restored_Files* files)
{
  for (;;) {
    if (!go_on())
      return false;
    const kestrel::Archive_Reader::Step step = reader.next();
    if (step == kestrel::Archive_Reader::Step::failed)
      return fail_reading(reader.error());
    if (step == kestrel::Archive_Reader::Step::end)
      return true;
    if (is_chosen(reader.file().path) && !read_file(reader, files))
      return false;
  }
}

// From the first byte to the last, where the storage has compared its checksums too.
bool MTF_Restore::Work::read_all(kestrel::Restored_Files* files)
{
  if (!client_.open(kestrel::archive_file_name(seq_), Client_IO_Ex::MODE_READ, 0, 0))
    return fail(client_.error());
  bool skipping = false;
  kestrel::Archive_Reader reader([&](char* data, unsigned n) {
    // A file that is skipped passes here block by block.
    if (skipping && !go_on())
      return -1;
    return client_.read(data, n);
  });
  if (!reader.open())
    return fail_reading(reader.error());
  if (!check_record(reader.record()))
    return false;
  skipping = choosing_ && !verifying_;
  moved(0, chosen_size_, 0);
  if (!read_stream(reader, files))
    return false;
  for (const kestrel::Archive_Index::File& file : reader.index().files)
    if (is_chosen(file.member.path))
      members_.push_back(file.member);
  set_size_ = client_.original_size();
  archive_bytes_ = set_size_;
  set_storage_size_ = client_.storage_size();
  original_checksum_ = client_.original_checksum();
  storage_checksum_ = client_.storage_checksum();
  return true;
}

bool MTF_Restore::Work::read_part(const kestrel::Archive_Index::File& file, kestrel::Restored_Files& files)
{
  const std::unique_ptr<char[]> block(new char[block_bytes]);
  kestrel::Xxh3_128 sum;
  watch_.file_event(MTF::event_file_begins, file.member.path, file.member.size);
  if (!files.begin(file.member.name, file.mode, error_))
    return false;
  for (uint64_t done = 0; done < file.member.size;) {
    const unsigned wanted = static_cast<unsigned>(std::min<uint64_t>(block_bytes, file.member.size - done));
    const int count = client_.read_at(file.data_offset + done, block.get(), wanted);
    if (count <= 0)
      return fail_reading(count < 0 ? "" : "the archive is damaged: it ends within a file");
    sum.update(block.get(), static_cast<unsigned>(count));
    if (!files.write(block.get(), static_cast<unsigned>(count), error_))
      return false;
    done += static_cast<unsigned>(count);
    size_ += static_cast<unsigned>(count);
    moved(size_, chosen_size_, client_.original_size());
    if (!go_on())
      return false;
  }
  if (sum.hex() != file.member.checksum)
    return fail_reading("the archive is damaged: the checksum of \"" + kestrel::shown_name(file.member.name) +
                        "\" is wrong");
  if (!files.end(error_))
    return false;
  watch_.file_event(MTF::event_file_done, file.member.path, file.member.size);
  members_.push_back(file.member);
  return true;
}

// `done` stays false when the archive had better be read as a stream.
bool MTF_Restore::Work::read_parts(kestrel::Restored_Files& files, bool& done)
{
  bool possible = false;
  if (!client_.open_random(kestrel::archive_file_name(seq_), possible))
    return fail(client_.error());
  if (!possible)
    return true;
  kestrel::Archive_Record record;
  kestrel::Archive_Index index;
  std::string reason;
  const auto read_at = [&](uint64_t offset, char* data, unsigned n) {
    return client_.read_at(offset, data, n);
  };
  if (!kestrel::read_archive_index(client_.random_size(), read_at, record, index, reason))
    return fail_reading(reason);
  if (!check_record(record))
    return false;
  if (chosen_.size() == record.files.size())
    return true;
  moved(0, chosen_size_, 0);
  for (const kestrel::Archive_Index::File& file : index.files)
    if (is_chosen(file.member.path) && (!go_on() || !read_part(file, files)))
      return false;
  set_size_ = client_.random_size();
  set_storage_size_ = set_size_;
  done = true;
  return true;
}

bool MTF_Restore::Work::run(const std::string* directory)
{
  error_.clear();
  canceled_ = false;
  size_ = 0;
  members_.clear();
  kestrel::Scope_Guard close([&] { kestrel::ignore_result(client_.close(), "the file was only read"); });
  verifying_ = !directory;
  if (verifying_) {
    if (!go_on() || !connect() || !read_all(nullptr))
      return false;
    watch_.finish(size_, archive_bytes_);
    return true;
  }
  if (!kestrel::run_pre_action(action_, error_))
    return false;
  {
    kestrel::Restored_Files files(*directory);
    bool done = false;
    if (!files.check_directory(error_) || !go_on() || !connect() || (choosing_ && !read_parts(files, done)) ||
        (!done && !read_all(&files)) || !go_on() || !files.publish(error_))
      return false;
  }
  if (!kestrel::run_post_action(action_, error_))
    return false;
  watch_.finish(size_, archive_bytes_);
  return true;
}

MTF_Restore::MTF_Restore(MTF::Event_Handler* handler, std::shared_ptr<ACE_Log_Msg_Callback> cb)
    : work_(new Work(handler, std::move(cb)))
{
}

MTF_Restore::~MTF_Restore() = default;

void MTF_Restore::action_handler(Action_Handler_Ptr handler)
{
  work_->action_ = handler;
}

void MTF_Restore::pool_uuid(const std::string& id)
{
  work_->pool_uuid_ = id;
}

void MTF_Restore::definition_uuid(const std::string& id)
{
  work_->definition_uuid_ = id;
}

void MTF_Restore::backup_host_uuid(const std::string& id)
{
  work_->host_uuid_ = id;
}

void MTF_Restore::backup_minor_resource_id(const std::string& id)
{
  work_->minor_resource_id_ = id;
}

void MTF_Restore::seq(unsigned long long number)
{
  work_->seq_ = number;
}

void MTF_Restore::backup_uuid(const std::string& id)
{
  work_->backup_uuid_ = id;
}

Client_IO_Base::Options& MTF_Restore::extra_client_io_opts()
{
  return work_->options_;
}

bool MTF_Restore::restore_select(const json_spirit::Array& dirs)
{
  const kestrel::Thread_Log_Callback log(work_->log_);
  if (work_->select(dirs))
    return true;
  ACE_ERROR((LM_ERROR, "(%P|%t) The archive cannot be restored: %C\n", work_->error_.c_str()));
  return false;
}

bool MTF_Restore::run(const std::string* directory)
{
  const kestrel::Thread_Log_Callback log(work_->log_);
  bool done = false;
  try {
    done = work_->run(directory);
  } catch (const std::exception& failure) {
    work_->error_ = failure.what();
  }
  if (work_->canceled_) {
    work_->error_.clear();
    ACE_DEBUG((LM_INFO, "(%P|%t) Reading the archive was canceled\n"));
  } else if (!done)
    ACE_ERROR((LM_ERROR, "(%P|%t) The archive could not be %C: %C\n", directory ? "restored" : "verified",
               work_->error_.c_str()));
  return done;
}

bool MTF_Restore::restore(const std::string& dir)
{
  return run(&dir);
}

bool MTF_Restore::verify()
{
  return run(nullptr);
}

unsigned long long MTF_Restore::size() const
{
  return work_->size_;
}

unsigned long long MTF_Restore::set_size() const
{
  return work_->set_size_;
}

const json_spirit::Value& MTF_Restore::metadata() const
{
  return work_->metadata_;
}

const std::vector<MTF::Stored_Member>& MTF_Restore::members() const
{
  return work_->members_;
}

const std::string& MTF_Restore::error() const
{
  return work_->error_;
}

bool MTF_Restore::canceled() const
{
  return work_->canceled_;
}

unsigned long long MTF_Restore::set_storage_size() const
{
  return work_->set_storage_size_;
}

const std::string& MTF_Restore::original_checksum() const
{
  return work_->original_checksum_;
}

const std::string& MTF_Restore::storage_checksum() const
{
  return work_->storage_checksum_;
}
