#include "oscar/stream_pump.h"

#include <cerrno>
#include <utility>

#include <ace/Log_Msg.h>

#include "base/clock.h"
#include "base/descriptor.h"

namespace oscar
{
namespace
{
// The tool prepares the restore from the info block before it reads the backup itself.
constexpr int64_t PREPARE_MSEC = 3000;
} // namespace

bool Stream_Restore_Pump::pump(int fd, const Expected& expected)
{
  return feed_info(fd) && rewind() && feed_file(fd, expected);
}

bool Stream_Restore_Pump::feed_info(int fd)
{
  if (source_.read(block_.data(), STREAM_HEAD_BYTES) != int(STREAM_HEAD_BYTES)) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR, "Failed to read backup info head: %s\n", source_.error()));
    return false;
  }
  // The length comes from a stored file: one that does not fit the block is refused before anything is read.
  const uint32_t info_length = stream_info_length(block_.data());
  const unsigned data_bytes = info_length - STREAM_HEAD_BYTES;
  const bool fits = info_length >= STREAM_HEAD_BYTES && info_length <= STREAM_BLOCK_BYTES;
  if (!fits ||
      (data_bytes > 0 && source_.read(block_.data() + STREAM_HEAD_BYTES, data_bytes) != int(data_bytes))) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR, "Failed to read backup info data: %s\n", source_.error()));
    return false;
  }
  errno = 0;
  if (read_write_trait::write_n(fd, block_.data(), info_length) != ssize_t(info_length)) {
    host_.alert(17);
    ACE_ERROR((LM_ERROR, "Failed to write backup info to fifo, errno=%d, %m\n", errno));
    return false;
  }
  host_.bytes_moved();
  return true;
}

bool Stream_Restore_Pump::rewind()
{
  if (!source_.reopen()) {
    host_.alert(14);
    ACE_ERROR((LM_ERROR, "Failed to open file %s: %s\n", source_.name().c_str(), source_.error()));
    return false;
  }
  kestrel::clock().sleep_msec(PREPARE_MSEC);
  return true;
}

bool Stream_Restore_Pump::feed_file(int fd, const Expected& expected)
{
  // Two buffers take turns: the block just read waits while the one before it goes out.
  char* next = block_.data();
  char* held = held_back_.data();
  unsigned held_bytes = 0;
  int count;
  while ((count = source_.read(next, STREAM_BLOCK_BYTES)) > 0) {
    if (host_.canceled()) {
      ACE_DEBUG((LM_INFO, "Job(%s) has been canceled.\n", host_.definition_id().c_str()));
      return false;
    }
    if (held_bytes > 0 && !feed_block(fd, held, held_bytes))
      return false;
    bytes_ += static_cast<uint64_t>(count);
    held_bytes = static_cast<unsigned>(count);
    std::swap(next, held);
  }
  if (count < 0) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR, "Failed to read backup data: %s\n", source_.error()));
    return false;
  }
  return verify(expected) && (held_bytes == 0 || feed_block(fd, held, held_bytes));
}

bool Stream_Restore_Pump::feed_block(int fd, const char* data, unsigned bytes)
{
  errno = 0;
  if (read_write_trait::write_n(fd, data, bytes) != ssize_t(bytes)) {
    host_.alert(17);
    ACE_ERROR((LM_ERROR, "Failed to write backup data to fifo, errno=%d, %m\n", errno));
    return false;
  }
  host_.bytes_moved();
  int percent = 0;
  if (progress_.advance(bytes, percent))
    host_.progress(percent, progress_.total(), progress_.done());
  return true;
}

bool Stream_Restore_Pump::verify(const Expected& expected)
{
  if (expected.bytes != 0 && expected.bytes != bytes_) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR,
               "(%P|%t) Stream_Restore_Pump::verify: file %s gave %Q bytes, the catalog says %Q: this is not "
               "the file "
               "that was backed up; the restore is stopped\n",
               source_.name().c_str(), ACE_UINT64(bytes_), ACE_UINT64(expected.bytes)));
    return false;
  }
  const std::string checksum = source_.checksum();
  if (!expected.checksum.empty() && expected.checksum != checksum) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR,
               "(%P|%t) Stream_Restore_Pump::verify: file %s has checksum %s, the catalog says %s: this is "
               "not the file "
               "that was backed up; the restore is stopped\n",
               source_.name().c_str(), checksum.c_str(), expected.checksum.c_str()));
    return false;
  }
  return true;
}
} // namespace oscar
