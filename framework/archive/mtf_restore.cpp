#include "archive/mtf.h"

class MTF_Restore::Work
{
public:
  Work(MTF::Event_Handler* handler, std::shared_ptr<ACE_Log_Msg_Callback> cb)
      : handler_(handler), log_(std::move(cb))
  {
  }

  MTF::Event_Handler* const handler_;
  const std::shared_ptr<ACE_Log_Msg_Callback> log_;
  Action_Handler_Ptr action_;
  std::string pool_uuid_, definition_uuid_, host_uuid_, minor_resource_id_, backup_uuid_;
  unsigned long long seq_ = 0;
  Client_IO_Base::Options options_;
  unsigned long long size_ = 0, set_size_ = 0;
  json_spirit::Value metadata_;
  std::vector<MTF::Stored_Member> members_;
  std::string error_;
  bool canceled_ = false;
};

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

bool MTF_Restore::restore_select(const json_spirit::Array&)
{
  work_->error_ = "archives cannot be read yet";
  return false;
}

bool MTF_Restore::restore(const std::string&)
{
  work_->error_ = "archives cannot be read yet";
  return false;
}

bool MTF_Restore::verify()
{
  work_->error_ = "archives cannot be read yet";
  return false;
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
