#pragma once

#include <string>

#include "oscar/stream_pump.h"
#include "storage/client_io.h"

namespace oscar
{
/// The pumps' view of a file that is open in a storage client. The client is not owned and must outlive the
/// object.
class Stored_File_Sink : public Stream_Sink
{
public:
  Stored_File_Sink(Client_IO_Ex& storage, std::string name) : storage_(storage), name_(std::move(name)) {}
  bool write(const void* data, unsigned bytes) override { return storage_.write(data, bytes); }
  bool discard() override { return storage_.close() && storage_.remove(name_); }
  const char* error() const override { return storage_.error(); }

private:
  Client_IO_Ex& storage_;
  const std::string name_;
};

class Stored_File_Source : public Stream_Source
{
public:
  Stored_File_Source(Client_IO_Ex& storage, std::string name) : storage_(storage), name_(std::move(name)) {}
  int read(void* data, unsigned bytes) override { return storage_.read(data, bytes); }
  bool reopen() override { return storage_.close() && storage_.open(name_, Client_IO_Ex::MODE_READ, 0, 0); }
  std::string checksum() const override { return storage_.original_checksum(); }
  const char* error() const override { return storage_.error(); }
  const std::string& name() const override { return name_; }

private:
  Client_IO_Ex& storage_;
  const std::string name_;
};
} // namespace oscar
