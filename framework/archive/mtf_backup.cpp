#include "archive/mtf.h"

#include <algorithm>

class MTF_Backup::Work
{
public:
  Work(MTF::Event_Handler* handler, MTF::Metadata& metadata, std::shared_ptr<ACE_Log_Msg_Callback> cb)
      : handler_(handler), metadata_(metadata), log_(std::move(cb))
  {
  }

  MTF::Event_Handler* const handler_;
  MTF::Metadata& metadata_;
  const std::shared_ptr<ACE_Log_Msg_Callback> log_;
  std::vector<std::string> sources_;
  Action_Handler_Ptr action_;
  std::string pool_uuid_, device_uuid_, host_uuid_, minor_resource_id_, uuid_;
  unsigned long long seq_ = 1;
  unsigned compression_ = 0;
  int compression_level_ = 0;
  bool incremental_ = false;
  Client_IO_Base::Options options_;
  std::vector<MTF::Stored_Member> members_;
  std::string original_checksum_, storage_checksum_;
  std::string error_;
  bool canceled_ = false;
};

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
  work_->pool_uuid_ = id;
}

void MTF_Backup::device_uuid(const std::string& id)
{
  work_->device_uuid_ = id;
}

void MTF_Backup::host_uuid(const std::string& id)
{
  work_->host_uuid_ = id;
}

void MTF_Backup::minor_resource_id(const std::string& id)
{
  work_->minor_resource_id_ = id;
}

void MTF_Backup::uuid(const std::string& id)
{
  work_->uuid_ = id;
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
  work_->incremental_ = is_incremental;
}

Client_IO_Base::Options& MTF_Backup::extra_client_io_opts()
{
  return work_->options_;
}

bool MTF_Backup::backup(const Pool_Info&)
{
  work_->error_ = "archives cannot be written yet";
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
