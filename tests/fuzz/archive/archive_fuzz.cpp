#include "archive/archive_reader.h"
#include "support/corpus.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

struct Input {
  const char* data;
  size_t size;

  int read_at(uint64_t offset, char* target, unsigned n) const
  {
    if (offset >= size)
      return 0;
    const size_t count = std::min<size_t>(n, size - static_cast<size_t>(offset));
    std::memcpy(target, data + offset, count);
    return static_cast<int>(count);
  }
};

typedef std::map<std::string, std::string> Files;

/// Reads everything as a stream. True when the archive was accepted; then every name is a harmless one.
bool read_stream(const Input& input, Files& files)
{
  uint64_t offset = 0;
  kestrel::Archive_Reader reader([&](char* data, unsigned n) {
    const int count = input.read_at(offset, data, std::min(n, 1000u));
    offset += static_cast<unsigned>(count);
    return count;
  });
  bool good = reader.open();
  kestrel::Archive_Reader::Step step = kestrel::Archive_Reader::Step::failed;
  while (good && (step = reader.next()) == kestrel::Archive_Reader::Step::file) {
    std::string error;
    check(kestrel::is_archive_member_name(reader.file().name, error));
    std::string& content = files[reader.file().name];
    const char* data = nullptr;
    int count;
    while ((count = reader.read(data)) > 0)
      content.append(data, static_cast<size_t>(count));
    good = count == 0;
    check(!good || content.size() == reader.file().size);
  }
  good = good && step == kestrel::Archive_Reader::Step::end;
  check(good == reader.error().empty());
  check(!good || (reader.bytes_taken() == input.size && reader.index().files.size() == files.size()));
  return good;
}

/// The same by the index. What both accept must be the same.
void read_index(const Input& input, bool stream_good, const Files& files)
{
  kestrel::Archive_Record record;
  kestrel::Archive_Index index;
  std::string error;
  const auto read_at = [&](uint64_t offset, char* data, unsigned n) {
    return input.read_at(offset, data, n);
  };
  if (!kestrel::read_archive_index(input.size, read_at, record, index, error)) {
    check(!error.empty());
    return;
  }
  for (const kestrel::Archive_Index::File& file : index.files) {
    check(kestrel::is_archive_member_name(file.member.name, error));
    check(file.data_offset <= input.size && file.member.size <= input.size - file.data_offset);
    const std::string content(input.data + file.data_offset, static_cast<size_t>(file.member.size));
    const bool intact = kestrel::xxh3_128_hex(content.data(), content.size()) == file.member.checksum;
    check(!stream_good || !intact || files.at(file.member.name) == content);
  }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const Input input = {reinterpret_cast<const char*>(data), size};
  Files files;
  const bool good = read_stream(input, files);
  read_index(input, good, files);
  return 0;
}
