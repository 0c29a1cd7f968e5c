#include "storage/client_io.h"

#include "storage/back_end.h"
#include "storage/random_reader.h"
#include "storage/stream_reader.h"
#include "storage/stream_writer.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>

namespace kestrel
{
class Client_IO_State
{
public:
  bool fail(const std::string& reason);
  bool connect(const std::string& location, const Client_IO_Base::Options& options);
  bool open_to_write(const std::string& name);
  bool open_to_read(const std::string& name);
  bool open_random(const std::string& name, bool& possible);
  bool close();
  void forget_file();

  Client_IO_Base::Options options_;
  std::unique_ptr<Storage_Back_End> back_end_;
  std::unique_ptr<Stream_Writer> writer_;
  std::unique_ptr<Stream_Reader> reader_;
  std::unique_ptr<Random_Reader> random_;
  bool name_taken_ = false;
  std::string error_;
  // Of the file that is no longer open.
  uint64_t original_size_ = 0;
  uint64_t storage_size_ = 0;
  std::string original_checksum_;
  std::string storage_checksum_;
};

bool Client_IO_State::fail(const std::string& reason)
{
  error_ = reason.empty() ? "storage failed without a reason" : reason;
  return false;
}

bool Client_IO_State::connect(const std::string& location, const Client_IO_Base::Options& options)
{
  forget_file();
  back_end_.reset();
  std::string reason;
  std::unique_ptr<Storage_Back_End> back_end = make_storage_back_end(options.back_end, reason);
  if (!back_end || !back_end->connect(location, options, reason))
    return fail(reason);
  options_ = options;
  back_end_ = std::move(back_end);
  return true;
}

bool Client_IO_State::open_to_write(const std::string& name)
{
  std::string reason;
  if (!is_compression_method(options_.compression_method))
    return fail("compression method " + std::to_string(options_.compression_method) + " is unknown");
  std::unique_ptr<Stored_File_Writer> file = back_end_->create(name, options_.overwrite, reason);
  name_taken_ = !file && errno == EEXIST;
  if (!file)
    return fail(reason);
  auto writer = std::make_unique<Stream_Writer>(std::move(file), options_);
  if (!writer->start(options_))
    return fail(writer->error());
  writer_ = std::move(writer);
  return true;
}

bool Client_IO_State::open_to_read(const std::string& name)
{
  std::string reason;
  std::unique_ptr<Stored_File_Reader> file = back_end_->open(name, reason);
  if (!file)
    return fail(reason);
  auto reader = std::make_unique<Stream_Reader>(std::move(file), options_.rate_limits.read_limit());
  if (!reader->start())
    return fail(reader->error());
  reader_ = std::move(reader);
  return true;
}

bool Client_IO_State::open_random(const std::string& name, bool& possible)
{
  std::string reason;
  std::unique_ptr<Stored_File_Reader> file = back_end_->open(name, reason);
  if (!file)
    return fail(reason);
  auto reader = std::make_unique<Random_Reader>(std::move(file), options_.rate_limits.read_limit());
  bool can = false;
  if (!reader->start(can))
    return fail(reader->error());
  if (can)
    random_ = std::move(reader);
  possible = can;
  return true;
}

bool Client_IO_State::close()
{
  bool closed = true;
  if (writer_) {
    closed = writer_->close();
    if (!closed)
      fail(writer_->error());
    original_size_ = writer_->original_size();
    storage_size_ = writer_->storage_size();
    original_checksum_ = writer_->original_checksum();
    storage_checksum_ = writer_->storage_checksum();
  } else if (reader_) {
    original_size_ = reader_->original_size();
    storage_size_ = reader_->storage_size();
    original_checksum_ = reader_->original_checksum();
    storage_checksum_ = reader_->storage_checksum();
  } else if (random_)
    original_size_ = storage_size_ = random_->bytes_read();
  writer_.reset();
  reader_.reset();
  random_.reset();
  return closed;
}

void Client_IO_State::forget_file()
{
  writer_.reset();
  reader_.reset();
  random_.reset();
  name_taken_ = false;
  original_size_ = 0;
  storage_size_ = 0;
  original_checksum_.clear();
  storage_checksum_.clear();
}
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

bool Client_IO::write(const void* data, unsigned n)
{
  if (!state_->writer_)
    return state_->fail("no file is open for writing");
  return state_->writer_->write(data, n) || state_->fail(state_->writer_->error());
}

int Client_IO::read(void* data, unsigned n)
{
  if (!state_->reader_) {
    state_->fail("no file is open for reading");
    return -1;
  }
  const int count = state_->reader_->read(data, std::min<unsigned>(n, std::numeric_limits<int>::max()));
  if (count < 0)
    state_->fail(state_->reader_->error());
  return count;
}

const char* Client_IO::error() const
{
  return state_->error_.c_str();
}

unsigned long long Client_IO::original_size() const
{
  if (state_->writer_)
    return state_->writer_->original_size();
  if (state_->random_)
    return state_->random_->bytes_read();
  return state_->reader_ ? state_->reader_->original_size() : state_->original_size_;
}

unsigned long long Client_IO::storage_size() const
{
  if (state_->writer_)
    return state_->writer_->storage_size();
  if (state_->random_)
    return state_->random_->bytes_read();
  return state_->reader_ ? state_->reader_->storage_size() : state_->storage_size_;
}

const std::string& Client_IO::original_checksum() const
{
  return state_->reader_ ? state_->reader_->original_checksum() : state_->original_checksum_;
}

const std::string& Client_IO::storage_checksum() const
{
  return state_->reader_ ? state_->reader_->storage_checksum() : state_->storage_checksum_;
}

Client_IO_Ex::Client_IO_Ex() = default;

Client_IO_Ex::~Client_IO_Ex() = default;

bool Client_IO_Ex::connect(const std::string& location, const Client_IO_Base::Options& options)
{
  try {
    return state_->connect(location, options);
  } catch (const std::exception& failure) {
    return state_->fail(failure.what());
  }
}

bool Client_IO_Ex::open(const std::string& name, int mode, int, int)
{
  try {
    state_->forget_file();
    if (!state_->back_end_)
      return state_->fail("the storage client is not connected");
    if (mode != MODE_READ && mode != MODE_WRITE)
      return state_->fail("a stored file cannot be opened with mode " + std::to_string(mode));
    return mode == MODE_READ ? state_->open_to_read(name) : state_->open_to_write(name);
  } catch (const std::exception& failure) {
    return state_->fail(failure.what());
  }
}

bool Client_IO_Ex::name_taken() const
{
  return state_->name_taken_;
}

bool Client_IO_Ex::open_random(const std::string& name, bool& possible)
{
  try {
    state_->forget_file();
    return state_->back_end_ ? state_->open_random(name, possible)
                             : state_->fail("the storage client is not connected");
  } catch (const std::exception& failure) {
    return state_->fail(failure.what());
  }
}

int Client_IO_Ex::read_at(unsigned long long offset, void* data, unsigned n)
{
  if (!state_->random_) {
    state_->fail("no file is open for reading at any place");
    return -1;
  }
  const int count =
      state_->random_->read_at(offset, data, std::min<unsigned>(n, std::numeric_limits<int>::max()));
  if (count < 0)
    state_->fail(state_->random_->error());
  return count;
}

unsigned long long Client_IO_Ex::random_size() const
{
  return state_->random_ ? state_->random_->size() : 0;
}

bool Client_IO_Ex::discard()
{
  if (!state_->writer_)
    return close();
  state_->writer_->discard();
  state_->forget_file();
  return true;
}

bool Client_IO_Ex::close()
{
  try {
    return state_->close();
  } catch (const std::exception& failure) {
    state_->writer_.reset();
    state_->reader_.reset();
    return state_->fail(failure.what());
  }
}

bool Client_IO_Ex::remove(const std::string& name)
{
  try {
    std::string reason;
    if (!state_->back_end_)
      return state_->fail("the storage client is not connected");
    return state_->back_end_->remove(name, reason) || state_->fail(reason);
  } catch (const std::exception& failure) {
    return state_->fail(failure.what());
  }
}
