#include "archive/archive_reader.h"

#include "archive/utf8_locale.h"
#include "json/json_util.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <exception>
#include <limits>
#include <new>

namespace kestrel
{
namespace
{
const unsigned input_bytes = 256 * 1024;
} // namespace

void Archive_Reader::Closer::operator()(struct archive* archive) const
{
  ::archive_read_free(archive);
}

Archive_Reader::Archive_Reader(Input input) : input_(std::move(input)) {}

Archive_Reader::~Archive_Reader() = default;

bool Archive_Reader::fail(const std::string& reason)
{
  if (!failed_ && !input_failed_)
    error_ = "the archive is damaged: " + reason;
  failed_ = true;
  return false;
}

bool Archive_Reader::fail_library()
{
  const char* const reason = ::archive_error_string(archive_.get());
  return fail(reason ? reason : "it cannot be read");
}

ssize_t Archive_Reader::take_callback(struct archive* archive, void* reader, const void** data)
{
  Archive_Reader& self = *static_cast<Archive_Reader*>(reader);
  int count = -1;
  try {
    count = self.input_(self.buffer_.get(), input_bytes);
  } catch (const std::exception& failure) {
    self.fail(failure.what());
  }
  if (count < 0) {
    self.input_failed_ = true;
    ::archive_set_error(archive, EIO, "the input failed");
    return -1;
  }
  self.input_ended_ = count == 0;
  self.taken_ += static_cast<unsigned>(count);
  *data = self.buffer_.get();
  return count;
}

// Puts the library on the next entry; only plain files pass.
bool Archive_Reader::next_entry(std::string& name, uint64_t& size, bool& ended)
{
  const Utf8_Locale locale;
  archive_entry* entry = nullptr;
  const int result = ::archive_read_next_header(archive_.get(), &entry);
  ended = result == ARCHIVE_EOF;
  if (ended)
    return true;
  if (result < ARCHIVE_WARN)
    return fail_library();
  const char* const path = ::archive_entry_pathname(entry);
  if (path == nullptr)
    return fail("one of its names cannot be read");
  name = path;
  if (::archive_entry_filetype(entry) != AE_IFREG || ::archive_entry_hardlink(entry) ||
      ::archive_entry_symlink(entry) || ::archive_entry_sparse_count(entry) != 0)
    return fail("\"" + shown_name(name) +
                "\" is a link, a device, a directory or something else that is no "
                "plain file");
  if (!::archive_entry_size_is_set(entry) || ::archive_entry_size(entry) < 0)
    return fail("\"" + shown_name(name) + "\" has no size");
  size = static_cast<uint64_t>(::archive_entry_size(entry));
  mode_ = ::archive_entry_perm(entry) & 0777;
  const la_int64_t offset = ::archive_read_header_position(archive_.get());
  entry_offset_ = offset < 0 ? 0 : static_cast<uint64_t>(offset);
  entry_size_ = size;
  entry_done_ = 0;
  sum_.reset();
  return true;
}

int Archive_Reader::read_some(const char*& data)
{
  if (failed_)
    return -1;
  const void* block = nullptr;
  size_t count = 0;
  la_int64_t offset = 0;
  const int result = ::archive_read_data_block(archive_.get(), &block, &count, &offset);
  if (result == ARCHIVE_EOF) {
    if (entry_done_ == entry_size_)
      return 0;
    fail("it ends within a file");
    return -1;
  }
  if (result < ARCHIVE_WARN) {
    fail_library();
    return -1;
  }
  if (static_cast<uint64_t>(offset) != entry_done_ || count > entry_size_ - entry_done_ ||
      count > static_cast<size_t>(std::numeric_limits<int>::max())) {
    fail("a file has other bytes than its header tells");
    return -1;
  }
  if (count == 0)
    return read_some(data);
  data = static_cast<const char*>(block);
  entry_done_ += count;
  sum_.update(data, count);
  return static_cast<int>(count);
}

bool Archive_Reader::read_text(const char* name, std::string& text)
{
  std::string found;
  uint64_t size = 0;
  bool ended = false;
  if (!next_entry(found, size, ended))
    return false;
  if (ended || found != name)
    return fail("its entry " + std::string(name) + " is missing" +
                (ended ? "" : "; instead there is \"" + shown_name(found) + "\""));
  if (size > archive_most_text_bytes)
    return fail("its entry " + std::string(name) + " is too long");
  text.clear();
  const char* data = nullptr;
  for (int count; (count = read_some(data)) != 0;) {
    if (count < 0)
      return false;
    text.append(data, static_cast<size_t>(count));
  }
  return true;
}

bool Archive_Reader::open()
{
  buffer_.reset(new (std::nothrow) char[input_bytes]);
  archive_.reset(::archive_read_new());
  if (!archive_ || !buffer_)
    return fail("not enough memory");
  if (::archive_read_support_format_tar(archive_.get()) < ARCHIVE_WARN ||
      ::archive_read_open(archive_.get(), this, nullptr, &Archive_Reader::take_callback, nullptr) <
          ARCHIVE_WARN)
    return fail_library();
  std::string text, reason;
  if (!read_text(archive_record_name, text))
    return false;
  record_size_ = text.size();
  record_checksum_ = sum_.hex();
  return parse_archive_record(text, record_, reason) || fail(reason);
}

Archive_Reader::Step Archive_Reader::next()
{
  if (failed_)
    return Step::failed;
  if (position_ == record_.files.size())
    return finish();
  const Archive_Record::File& wanted = record_.files[position_];
  std::string name;
  uint64_t size = 0;
  bool ended = false;
  if (!next_entry(name, size, ended))
    return Step::failed;
  std::string reason;
  if (ended)
    fail("it ends before \"" + shown_name(wanted.name) + "\"");
  else if (!is_archive_member_name(name, reason))
    fail(reason);
  // The record's names are UTF-8; one that is not keeps its bytes in the header only.
  else if (utf8_without_invalid(name) != wanted.name || size != wanted.size)
    fail("instead of \"" + shown_name(wanted.name) + "\" there is \"" + shown_name(name) + "\" of " +
         std::to_string(size) + " bytes");
  if (failed_)
    return Step::failed;
  ++position_;
  offsets_.push_back(entry_offset_);
  sums_.emplace_back();
  return Step::file;
}

int Archive_Reader::read(const char*& data)
{
  const int count = read_some(data);
  if (count == 0 && position_ > 0)
    sums_[position_ - 1] = sum_.hex();
  return count;
}

Archive_Reader::Step Archive_Reader::finish()
{
  std::string text, tail_text, reason;
  if (!read_text(archive_index_name, text))
    return Step::failed;
  const std::string checksum = sum_.hex();
  Archive_Tail tail;
  if (!read_text(archive_tail_name, tail_text))
    return Step::failed;
  const uint64_t end = entry_offset_ + archive_end_bytes;
  if (!parse_archive_index(text, index_, reason) || !parse_archive_tail(tail_text, tail, reason) ||
      !index_agrees(index_, record_, reason))
    fail(reason);
  else if (tail.index_size != text.size() || tail.index_checksum != checksum)
    fail("its index is not the one that was written");
  else if (check_index() && drain() && taken_ != end)
    fail("it has " + std::to_string(taken_) + " bytes instead of " + std::to_string(end));
  return failed_ ? Step::failed : Step::end;
}

bool Archive_Reader::check_index()
{
  if (index_.record_size != record_size_ || index_.record_checksum != record_checksum_)
    return fail("its metadata record is not the one that was written");
  for (size_t i = 0; i < index_.files.size(); ++i) {
    const Archive_Index::File& file = index_.files[i];
    if (file.header_offset != offsets_[i])
      return fail("\"" + shown_name(file.member.name) + "\" is not where the index says");
    if (!sums_[i].empty() && sums_[i] != file.member.checksum)
      return fail("the checksum of \"" + shown_name(file.member.name) + "\" is wrong");
  }
  return true;
}

// To the end of the input, where the storage compares its own checksums.
bool Archive_Reader::drain()
{
  std::string name;
  uint64_t size = 0;
  bool ended = false;
  if (!next_entry(name, size, ended))
    return false;
  if (!ended)
    return fail("\"" + shown_name(name) + "\" follows its last entry");
  while (!input_ended_) {
    const void* data;
    if (take_callback(archive_.get(), this, &data) < 0)
      return fail("");
  }
  return true;
}

namespace
{
/// All `size` bytes of a text, or false.
bool read_text_at(const std::function<int(uint64_t, char*, unsigned)>& read_at, uint64_t offset,
                  uint64_t size, std::string& text)
{
  if (size > archive_most_text_bytes)
    return false;
  text.resize(static_cast<size_t>(size));
  const int count = size == 0 ? 0 : read_at(offset, &text[0], static_cast<unsigned>(size));
  return count >= 0 && static_cast<uint64_t>(count) == size;
}

bool lies_inside(uint64_t offset, uint64_t size, uint64_t end)
{
  return offset <= end && size <= end - offset;
}

bool find_index(uint64_t archive_size, const std::function<int(uint64_t, char*, unsigned)>& read_at,
                Archive_Record& record, Archive_Index& index, std::string& error)
{
  std::string text;
  Archive_Tail tail;
  error = "it has no tail";
  if (archive_size < archive_end_bytes ||
      !read_text_at(read_at, archive_size - archive_end_bytes + 512, archive_tail_bytes, text))
    return false;
  if (!parse_archive_tail(text, tail, error))
    return false;
  error = "its index is not the one that was written";
  const uint64_t end = archive_size - archive_end_bytes;
  if (!lies_inside(tail.index_offset, tail.index_size, end) ||
      !read_text_at(read_at, tail.index_offset, tail.index_size, text) ||
      xxh3_128_hex(text.data(), text.size()) != tail.index_checksum)
    return false;
  if (!parse_archive_index(text, index, error))
    return false;
  for (const Archive_Index::File& file : index.files)
    if (!lies_inside(file.data_offset, file.member.size, tail.index_offset)) {
      error = "\"" + shown_name(file.member.name) + "\" lies outside it";
      return false;
    }
  error = "its metadata record is not the one that was written";
  if (!lies_inside(index.record_offset, index.record_size, tail.index_offset) ||
      !read_text_at(read_at, index.record_offset, index.record_size, text) ||
      xxh3_128_hex(text.data(), text.size()) != index.record_checksum)
    return false;
  return parse_archive_record(text, record, error) && index_agrees(index, record, error);
}
} // namespace

bool read_archive_index(uint64_t archive_size,
                        const std::function<int(uint64_t offset, char* data, unsigned n)>& read_at,
                        Archive_Record& record, Archive_Index& index, std::string& error)
{
  bool input_failed = false;
  const auto read = [&](uint64_t offset, char* data, unsigned n) {
    const int count = input_failed ? -1 : read_at(offset, data, n);
    input_failed = count < 0;
    return count;
  };
  std::string reason;
  if (find_index(archive_size, read, record, index, reason))
    return true;
  error = input_failed ? std::string() : "the archive is damaged: " + reason;
  return false;
}
} // namespace kestrel
