#include "storage/client_io.h"

namespace kestrel
{
class Client_IO_State
{
public:
  std::string error_ = "the storage client is not connected";
  std::string original_checksum_;
  std::string storage_checksum_;
};
} // namespace kestrel

bool Client_IO_Base::Options::set_extra_option(const char* name, const std::string& value)
{
  if (name == nullptr || *name == '\0')
    return false;
  extra_options_[name] = value;
  return true;
}

const std::string* Client_IO_Base::Options::extra_option(const char* name) const
{
  const auto found = name == nullptr ? extra_options_.end() : extra_options_.find(name);
  return found == extra_options_.end() ? nullptr : &found->second;
}

Client_IO::Client_IO() : state_(new kestrel::Client_IO_State) {}

Client_IO::~Client_IO() = default;

bool Client_IO::write(const void*, unsigned)
{
  return false;
}

int Client_IO::read(void*, unsigned)
{
  return -1;
}

const char* Client_IO::error() const
{
  return state_->error_.c_str();
}

unsigned long long Client_IO::original_size() const
{
  return 0;
}

unsigned long long Client_IO::storage_size() const
{
  return 0;
}

const std::string& Client_IO::original_checksum() const
{
  return state_->original_checksum_;
}

const std::string& Client_IO::storage_checksum() const
{
  return state_->storage_checksum_;
}

Client_IO_Ex::Client_IO_Ex() = default;

Client_IO_Ex::~Client_IO_Ex() = default;

bool Client_IO_Ex::connect(const std::string&, const Client_IO_Base::Options&)
{
  return false;
}

bool Client_IO_Ex::open(const std::string&, int, int, int)
{
  return false;
}

bool Client_IO_Ex::close()
{
  return false;
}

bool Client_IO_Ex::remove(const std::string&)
{
  return false;
}
