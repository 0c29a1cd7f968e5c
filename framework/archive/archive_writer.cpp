#include "archive/archive_writer.h"

#include "archive/utf8_locale.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <exception>
#include <limits>

namespace kestrel
{
namespace
{
struct Entry_Closer {
  void operator()(archive_entry* entry) const { ::archive_entry_free(entry); }
};
const unsigned own_entry_mode = 0640;
} // namespace

void Archive_Writer::Closer::operator()(struct archive* archive) const
{
  ::archive_write_free(archive);
}

Archive_Writer::Archive_Writer(Output output) : output_(std::move(output)) {}

// The library frees some of its memory in its close only, where it also writes the end of the archive: of one
// that was given up the output must not see that.
Archive_Writer::~Archive_Writer()
{
  output_failed_ = true;
  if (archive_)
    ::archive_write_close(archive_.get());
}

bool Archive_Writer::fail(const std::string& reason)
{
  if (!failed_ && !output_failed_)
    error_ = reason;
  failed_ = true;
  return false;
}

bool Archive_Writer::check(int result, const char* what)
{
  // A warning is about a name that is no UTF-8: it is kept byte by byte.
  if (result >= ARCHIVE_WARN)
    return true;
  const char* const reason = ::archive_error_string(archive_.get());
  return fail(std::string("the archive library cannot ") + what + ": " +
              (reason ? reason : "no reason given"));
}

bool Archive_Writer::put(const void* data, size_t n)
{
  const char* next = static_cast<const char*>(data);
  sum_.update(data, n);
  size_ += n;
  while (n > 0) {
    const unsigned piece = static_cast<unsigned>(std::min<size_t>(n, std::numeric_limits<int>::max()));
    if (!output_(next, piece))
      return false;
    next += piece;
    n -= piece;
  }
  return true;
}

ssize_t Archive_Writer::put_callback(struct archive* archive, void* writer, const void* data, size_t n)
{
  Archive_Writer& self = *static_cast<Archive_Writer*>(writer);
  try {
    if (!self.output_failed_ && self.put(data, n))
      return static_cast<ssize_t>(n);
  } catch (const std::exception& failure) {
    self.fail(failure.what());
  }
  self.output_failed_ = true;
  ::archive_set_error(archive, EIO, "the output failed");
  return -1;
}

bool Archive_Writer::open()
{
  archive_.reset(::archive_write_new());
  if (!archive_)
    return fail("not enough memory for an archive");
  struct archive* const archive = archive_.get();
  return check(::archive_write_set_format_pax_restricted(archive), "write pax files") &&
         // The output has buffers of its own, and the tail must be the last bytes.
         check(::archive_write_set_bytes_per_block(archive, 0), "write without blocks") &&
         check(::archive_write_open(archive, this, nullptr, &Archive_Writer::put_callback, nullptr), "begin");
}

bool Archive_Writer::put_header(const std::string& name, uint64_t size, unsigned mode, time_t modified)
{
  const std::unique_ptr<archive_entry, Entry_Closer> entry(::archive_entry_new());
  if (!entry)
    return fail("not enough memory for an archive");
  const Utf8_Locale locale;
  ::archive_entry_copy_pathname(entry.get(), name.c_str());
  ::archive_entry_set_filetype(entry.get(), AE_IFREG);
  ::archive_entry_set_perm(entry.get(), static_cast<mode_t>(mode & 0777));
  ::archive_entry_set_size(entry.get(), static_cast<la_int64_t>(size));
  ::archive_entry_set_mtime(entry.get(), modified, 0);
  return check(::archive_write_header(archive_.get(), entry.get()), "write a file's header");
}

bool Archive_Writer::put_data(const char* data, size_t n)
{
  while (n > 0) {
    const la_ssize_t count = ::archive_write_data(archive_.get(), data, n);
    if (count < 0)
      return check(static_cast<int>(count), "write a file's bytes");
    if (count == 0)
      return fail("the archive library takes no more bytes of a file");
    data += count;
    n -= static_cast<size_t>(count);
  }
  return true;
}

bool Archive_Writer::put_text(const char* name, const std::string& text, uint64_t& offset)
{
  if (!put_header(name, text.size(), own_entry_mode, static_cast<time_t>(record_.time)))
    return false;
  offset = size_;
  return put_data(text.data(), text.size()) &&
         check(::archive_write_finish_entry(archive_.get()), "end an entry");
}

bool Archive_Writer::begin(const Archive_Record& record)
{
  record_ = record;
  const std::string text = archive_record_text(record_);
  // What cannot be read again must not be written.
  Archive_Record same;
  std::string reason;
  if (text.size() > archive_most_text_bytes)
    return fail("the archive's metadata record would be too long");
  if (!parse_archive_record(text, same, reason))
    return fail(reason);
  index_.record_size = text.size();
  index_.record_checksum = xxh3_128_hex(text.data(), text.size());
  return open() && put_text(archive_record_name, text, index_.record_offset);
}

bool Archive_Writer::begin_file(unsigned mode, time_t modified)
{
  if (failed_)
    return false;
  if (index_.files.size() == record_.files.size())
    return fail("the archive gets more files than its metadata record lists");
  const Archive_Record::File& planned = record_.files[index_.files.size()];
  Archive_Index::File file;
  file.member.path = planned.path;
  file.member.name = planned.name;
  file.member.size = planned.size;
  file.mode = mode & 0777;
  file.header_offset = size_;
  if (!put_header(planned.name, planned.size, mode, modified))
    return false;
  file.data_offset = size_;
  index_.files.push_back(file);
  file_left_ = planned.size;
  file_sum_.reset();
  return true;
}

bool Archive_Writer::data(const char* data, unsigned n)
{
  if (failed_)
    return false;
  if (n > file_left_)
    return fail("a file got longer while it was stored");
  file_left_ -= n;
  file_sum_.update(data, n);
  return put_data(data, n);
}

bool Archive_Writer::end_file()
{
  if (failed_)
    return false;
  if (file_left_ != 0)
    return fail("a file got shorter while it was stored");
  index_.files.back().member.checksum = file_sum_.hex();
  return check(::archive_write_finish_entry(archive_.get()), "end a file");
}

bool Archive_Writer::finish()
{
  if (failed_)
    return false;
  if (index_.files.size() != record_.files.size())
    return fail("the archive lacks files that its metadata record lists");
  const std::string text = archive_index_text(index_);
  if (text.size() > archive_most_text_bytes)
    return fail("the archive's index would be too long");
  Archive_Tail tail;
  tail.index_size = text.size();
  tail.index_checksum = xxh3_128_hex(text.data(), text.size());
  uint64_t offset;
  return put_text(archive_index_name, text, tail.index_offset) &&
         put_text(archive_tail_name, archive_tail_text(tail), offset) &&
         check(::archive_write_close(archive_.get()), "end the archive");
}
} // namespace kestrel
