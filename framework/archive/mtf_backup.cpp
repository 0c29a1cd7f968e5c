#include "archive/mtf.h"

#include "archive/archive_writer.h"
#include "archive/transfer_watch.h"
#include "base/clock.h"
#include "base/descriptor.h"
#include "base/file_system.h"
#include "base/ignore_result.h"
#include "base/log.h"
#include "base/scope_guard.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <limits>
#include <new>
#include <system_error>

namespace
{
const unsigned block_bytes = 256 * 1024;

std::string file_failure(const char* what, const std::string& path)
{
  return std::string("cannot ") + what + " " + path + ": " + std::generic_category().message(errno);
}
} // namespace

class MTF_Backup::Work
{
public:
  Work(MTF::Event_Handler* handler, MTF::Metadata& metadata, std::shared_ptr<ACE_Log_Msg_Callback> cb)
      : metadata_(metadata), log_(std::move(cb)), watch_(handler)
  {
  }

  bool run(const Pool_Info& pool);
  bool withdraw();

  MTF::Metadata& metadata_;
  const std::shared_ptr<ACE_Log_Msg_Callback> log_;
  std::vector<std::string> sources_;
  Action_Handler_Ptr action_;
  kestrel::Archive_Record record_;
  unsigned long long seq_ = 1;
  Client_IO_Base::Options options_;
  Compression_Method compression_ = COMPRESSION_NONE;
  int compression_level_ = 0;
  std::vector<MTF::Stored_Member> members_;
  std::string original_checksum_, storage_checksum_;
  std::string error_;
  bool canceled_ = false;
  bool used_ = false;

private:
  bool stored_ = false;
  bool fail(const std::string& reason);
  bool go_on();
  bool plan();
  bool connect(const Pool_Info& pool);
  bool take_number();
  bool write_archive();
  bool store(const kestrel::Archive_Record::File& file);
  bool copy(int fd, const kestrel::Archive_Record::File& file);
  bool fail_writing();
  bool close();

  kestrel::Transfer_Watch watch_;
  Client_IO_Ex client_;
  std::unique_ptr<kestrel::Archive_Writer> writer_;
  std::unique_ptr<char[]> block_;
  uint64_t moved_ = 0;
  uint64_t source_size_ = 0;
};

bool MTF_Backup::Work::fail(const std::string& reason)
{
  error_ = reason;
  return false;
}

bool MTF_Backup::Work::go_on()
{
  canceled_ = !watch_.go_on();
  return !canceled_;
}

// The pre-action has made the files; from here on they must not change.
bool MTF_Backup::Work::plan()
{
  for (const std::string& path : sources_) {
    struct stat status;
    if (kestrel::file_system().stat(path.c_str(), &status) != 0)
      return fail(file_failure("store", path));
    if (!S_ISREG(status.st_mode))
      return fail("cannot store " + path + ": it is no regular file");
    const std::string name = kestrel::archive_member_name(path);
    std::string reason;
    if (!kestrel::is_archive_member_name(name, reason))
      return fail("cannot store " + path + ": " + reason);
    for (const kestrel::Archive_Record::File& other : record_.files)
      if (other.name == name)
        return fail("cannot store " + path + " beside " + other.path + ": both would be called " +
                    kestrel::shown_name(name) + " in the archive");
    record_.files.push_back({name, path, static_cast<uint64_t>(status.st_size)});
    source_size_ += static_cast<uint64_t>(status.st_size);
  }
  return true;
}

bool MTF_Backup::Work::connect(const Pool_Info& pool)
{
  Client_IO_Base::Options options = options_;
  if (!set_options_by_pool(options, pool))
    return fail("the pool has neither a directory nor a host");
  options.overwrite = false;
  options.compression_method = compression_;
  options.compression_level = compression_level_;
  return client_.connect(pool.storage_path + "/" + record_.minor_resource_id, options) ||
         fail(client_.error());
}

// An archive of a run whose record never reached the catalog, or of a process that runs beside this one, has
// its number for good.
bool MTF_Backup::Work::take_number()
{
  while (!client_.open(kestrel::archive_file_name(seq_), Client_IO_Ex::MODE_WRITE, 0, 0)) {
    if (!client_.name_taken() || seq_ == std::numeric_limits<unsigned long long>::max())
      return fail(client_.error());
    ++seq_;
  }
  return true;
}

bool MTF_Backup::Work::fail_writing()
{
  return fail(writer_->error().empty() ? client_.error() : writer_->error());
}

bool MTF_Backup::Work::copy(int fd, const kestrel::Archive_Record::File& file)
{
  for (uint64_t left = file.size;;) {
    const ssize_t count = kestrel::file_system().read(fd, block_.get(), block_bytes);
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0)
      return fail(file_failure("read", file.path));
    if (static_cast<uint64_t>(count) > left || (count == 0 && left > 0))
      return fail(file.path + " changed while it was stored");
    if (count == 0)
      return true;
    left -= static_cast<uint64_t>(count);
    if (!writer_->data(block_.get(), static_cast<unsigned>(count)))
      return fail_writing();
    moved_ += static_cast<uint64_t>(count);
    watch_.moved(moved_, source_size_, moved_, source_size_, client_.storage_size());
    if (!go_on())
      return false;
  }
}

bool MTF_Backup::Work::store(const kestrel::Archive_Record::File& file)
{
  // Not blocking, in case the file was replaced by a pipe.
  const int fd = kestrel::file_system().open(file.path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0)
    return fail(file_failure("read", file.path));
  kestrel::Scope_Guard close_file(
      [&] { kestrel::ignore_result(kestrel::file_system().close(fd), "the file was only read"); });
  struct stat status;
  if (kestrel::file_system().fstat(fd, &status) != 0)
    return fail(file_failure("examine", file.path));
  if (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) != file.size)
    return fail(file.path + " changed while it was stored");
  kestrel::ignore_result(::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL), "only advice");
  watch_.file_event(MTF::event_file_begins, file.path, file.size);
  if (!writer_->begin_file(status.st_mode, status.st_mtime))
    return fail_writing();
  if (!copy(fd, file))
    return false;
  if (!writer_->end_file())
    return fail_writing();
  watch_.file_event(MTF::event_file_done, file.path, file.size);
  return true;
}

bool MTF_Backup::Work::write_archive()
{
  record_.seq = seq_;
  record_.time = kestrel::clock().now();
  record_.compression = compression_value_to_name(compression_);
  record_.metadata = metadata_.metadata();
  writer_.reset(
      new kestrel::Archive_Writer([this](const char* data, unsigned n) { return client_.write(data, n); }));
  if (!writer_->begin(record_))
    return fail_writing();
  watch_.moved(0, source_size_, 0, source_size_, 0);
  for (const kestrel::Archive_Record::File& file : record_.files)
    if (!go_on() || !store(file))
      return false;
  return writer_->finish() || fail_writing();
}

// The storage must have counted and summed up what the writer handed to it.
bool MTF_Backup::Work::close()
{
  if (!client_.close())
    return fail(client_.error());
  if (client_.original_size() == writer_->size() && client_.original_checksum() == writer_->checksum())
    return true;
  kestrel::ignore_result(client_.remove(kestrel::archive_file_name(seq_)),
                         "without a record it is never listed");
  return fail("what the storage took is not what the archive writer gave it; the archive was removed");
}

bool MTF_Backup::Work::run(const Pool_Info& pool)
{
  if (used_)
    return fail("this backup has already run");
  used_ = true;
  block_.reset(new (std::nothrow) char[block_bytes]);
  if (!block_)
    return fail("not enough memory");
  if (sources_.empty())
    return fail("there is nothing to store");
  if (!kestrel::run_pre_action(action_, error_) || !go_on() || !plan() || !connect(pool) || !take_number())
    return false;
  kestrel::Scope_Guard discard(
      [&] { kestrel::ignore_result(client_.discard(), "unfinished files are never listed"); });
  if (!write_archive() || !kestrel::run_post_action(action_, error_) || !go_on() || !close())
    return false;
  discard.cancel();
  for (const kestrel::Archive_Index::File& file : writer_->index().files)
    members_.push_back(file.member);
  original_checksum_ = client_.original_checksum();
  storage_checksum_ = client_.storage_checksum();
  metadata_.source_size(source_size_);
  metadata_.set_size(client_.original_size());
  metadata_.set_storage_size(client_.storage_size());
  stored_ = true;
  watch_.finish(source_size_, client_.storage_size());
  return true;
}

bool MTF_Backup::Work::withdraw()
{
  if (!stored_)
    return true;
  stored_ = !client_.remove(kestrel::archive_file_name(seq_));
  return !stored_ || fail(client_.error());
}

MTF_Backup::MTF_Backup(MTF::Event_Handler* handler, MTF::Metadata& metadata,
                       std::shared_ptr<ACE_Log_Msg_Callback> cb)
    : work_(new Work(handler, metadata, std::move(cb)))
{
}

MTF_Backup::~MTF_Backup() = default;

void MTF_Backup::add_source(const std::string& path)
{
  std::vector<std::string>& sources = work_->sources_;
  if (std::find(sources.begin(), sources.end(), path) == sources.end())
    sources.push_back(path);
}

void MTF_Backup::action_handler(Action_Handler_Ptr handler)
{
  work_->action_ = handler;
}

void MTF_Backup::pool_uuid(const std::string& id)
{
  work_->record_.pool_uuid = id;
}

void MTF_Backup::device_uuid(const std::string& id)
{
  work_->record_.device_uuid = id;
}

void MTF_Backup::host_uuid(const std::string& id)
{
  work_->record_.host_uuid = id;
}

void MTF_Backup::definition_uuid(const std::string& id)
{
  work_->record_.definition_uuid = id;
}

void MTF_Backup::minor_resource_id(const std::string& id)
{
  work_->record_.minor_resource_id = id;
}

void MTF_Backup::uuid(const std::string& id)
{
  work_->record_.uuid = id;
}

void MTF_Backup::seq(unsigned long long last)
{
  work_->seq_ = last + 1;
}

unsigned long long MTF_Backup::seq() const
{
  return work_->seq_;
}

void MTF_Backup::compression(unsigned mtf_code)
{
  work_->compression_ = mtf_code;
}

void MTF_Backup::compression_level(int level)
{
  work_->compression_level_ = level;
}

void MTF_Backup::incremental(bool is_incremental)
{
  work_->record_.incremental = is_incremental;
}

Client_IO_Base::Options& MTF_Backup::extra_client_io_opts()
{
  return work_->options_;
}

bool MTF_Backup::backup(const Pool_Info& pool)
{
  const kestrel::Thread_Log_Callback log(work_->log_);
  bool done = false;
  try {
    done = work_->run(pool);
  } catch (const std::exception& failure) {
    work_->error_ = failure.what();
  }
  if (work_->canceled_) {
    work_->error_.clear();
    ACE_DEBUG((LM_INFO, "(%P|%t) The archive was canceled, nothing of it is left\n"));
  } else if (!done)
    ACE_ERROR((LM_ERROR, "(%P|%t) The archive could not be written: %C\n", work_->error_.c_str()));
  return done;
}

bool MTF_Backup::withdraw()
{
  const kestrel::Thread_Log_Callback log(work_->log_);
  if (work_->withdraw())
    return true;
  ACE_ERROR((LM_ERROR, "(%P|%t) The archive could not be taken back, it stays without a record: %C\n",
             work_->error_.c_str()));
  return false;
}

unsigned long long MTF_Backup::source_size() const
{
  return work_->metadata_.source_size();
}

unsigned long long MTF_Backup::set_size() const
{
  return work_->metadata_.set_size();
}

unsigned long long MTF_Backup::set_storage_size() const
{
  return work_->metadata_.set_storage_size();
}

std::string MTF_Backup::backup_file() const
{
  return kestrel::archive_file_name(work_->seq_);
}

const std::vector<MTF::Stored_Member>& MTF_Backup::members() const
{
  return work_->members_;
}

const std::string& MTF_Backup::original_checksum() const
{
  return work_->original_checksum_;
}

const std::string& MTF_Backup::storage_checksum() const
{
  return work_->storage_checksum_;
}

const std::string& MTF_Backup::error() const
{
  return work_->error_;
}

bool MTF_Backup::canceled() const
{
  return work_->canceled_;
}
