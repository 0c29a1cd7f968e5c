#pragma once

#include "base/checksum.h"
#include "oscar/stream_pump.h"

#include <string>
#include <vector>

namespace kestrel_test
{
/// A job as a pump sees it. cancel_after: the number of blocks after which the job is canceled.
class Fake_Pump_Host : public oscar::Stream_Pump_Host
{
public:
  bool canceled() const override { return moved >= cancel_after; }
  void bytes_moved() override { ++moved; }
  void progress(int percent, uint64_t total, uint64_t done) override
  {
    percents.push_back(percent);
    last_total = total;
    last_done = done;
  }
  void alert(int code) override { alerts.push_back(code); }
  std::string definition_id() const override { return "def-1"; }

  unsigned moved = 0;
  unsigned cancel_after = ~0u;
  std::vector<int> alerts;
  std::vector<int> percents;
  uint64_t last_total = 0;
  uint64_t last_done = 0;
};

/// A stored file in memory that is written. fail_write: the number of the write that fails, from 1.
class Memory_Sink : public oscar::Stream_Sink
{
public:
  bool write(const void* data, unsigned bytes) override
  {
    if (++writes == fail_write)
      return false;
    stored.append(static_cast<const char*>(data), bytes);
    return true;
  }
  bool discard() override
  {
    discarded = true;
    return !fail_discard;
  }
  const char* error() const override { return "disk on fire"; }

  std::string stored;
  unsigned writes = 0;
  unsigned fail_write = 0;
  bool fail_discard = false;
  bool discarded = false;
};

/// A stored file in memory that is read; reopen starts again. fail_at: the byte of the second pass at which
/// reading fails.
class Memory_Source : public oscar::Stream_Source
{
public:
  explicit Memory_Source(std::string content) : content_(std::move(content)) {}

  int read(void* data, unsigned bytes) override
  {
    if (reopened && position_ + bytes > fail_at)
      return -1;
    const size_t count = std::min<size_t>(bytes, content_.size() - position_);
    content_.copy(static_cast<char*>(data), count, position_);
    position_ += count;
    return static_cast<int>(count);
  }
  bool reopen() override
  {
    position_ = 0;
    reopened = true;
    return !fail_reopen;
  }
  std::string checksum() const override { return kestrel::xxh3_128_hex(content_.data(), position_); }
  const char* error() const override { return "bad sector"; }
  const std::string& name() const override { return name_; }

  bool reopened = false;
  bool fail_reopen = false;
  size_t fail_at = ~size_t(0);

private:
  const std::string content_;
  const std::string name_ = "db1_full.zst";
  size_t position_ = 0;
};

/// A stream: the head with this info length, the info text, the image.
inline std::string make_stream(uint32_t info_length, const std::string& info, const std::string& image)
{
  std::string stream(oscar::STREAM_HEAD_BYTES, '\0');
  for (int i = 0; i < 4; ++i)
    stream[static_cast<size_t>(i)] = static_cast<char>(info_length >> (24 - 8 * i));
  for (size_t i = 4; i < stream.size(); ++i)
    stream[i] = static_cast<char>(i * 7);
  return stream + info + image;
}

/// A stream whose info length is right.
inline std::string make_stream(const std::string& info, const std::string& image)
{
  return make_stream(static_cast<uint32_t>(oscar::STREAM_HEAD_BYTES + info.size()), info, image);
}

/// Bytes without a short period.
inline std::string pattern(size_t bytes)
{
  std::string text(bytes, '\0');
  uint32_t value = 12345;
  for (char& c : text) {
    value = value * 1664525u + 1013904223u;
    c = static_cast<char>(value >> 24);
  }
  return text;
}
} // namespace kestrel_test
