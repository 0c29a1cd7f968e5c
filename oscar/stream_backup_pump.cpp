#include "oscar/stream_pump.h"

#include <cerrno>
#include <memory>
#include <new>

#include <ace/Log_Msg.h>

#include "base/descriptor.h"

namespace oscar
{
bool Stream_Backup_Pump::pump(int fd, const std::string& fifo_path, Pumped_Stream& pumped)
{
  uint32_t info_length = 0;
  if (!copy_head(fd, info_length) || !copy_info(fd, info_length) || !copy_image(fd, fifo_path))
    return false;
  pumped.bytes = progress_.done();
  pumped.info_bytes = info_length;
  pumped.checksum = checksum_.hex();
  return true;
}

bool Stream_Backup_Pump::copy_head(int fd, uint32_t& info_length)
{
  errno = 0;
  if (read_write_trait::read_n(fd, block_.data(), STREAM_HEAD_BYTES) != ssize_t(STREAM_HEAD_BYTES)) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR, "Failed to get backup info head, errno=%d, %m\n", errno));
    return false;
  }
  if (!store(block_.data(), STREAM_HEAD_BYTES)) {
    host_.alert(17);
    ACE_ERROR((LM_ERROR, "Failed to write backup info head to storage: %s\n", sink_.error()));
    return false;
  }
  info_length = stream_info_length(block_.data());
  return true;
}

bool Stream_Backup_Pump::copy_info(int fd, uint32_t info_length)
{
  std::unique_ptr<char[]> data;
  const uint32_t data_bytes = info_length - STREAM_HEAD_BYTES;
  errno = info_length < STREAM_HEAD_BYTES ? EINVAL : 0;
  if (errno == 0) {
    data.reset(new (std::nothrow) char[data_bytes]);
    errno = data ? 0 : ENOMEM;
  }
  if (!data || read_write_trait::read_n(fd, data.get(), data_bytes) != ssize_t(data_bytes)) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR, "Failed to get backup info data, errno=%d, %m\n", errno));
    return false;
  }
  if (info_length > STREAM_BLOCK_BYTES)
    ACE_ERROR((LM_WARNING,
               "(%P|%t) Stream_Backup_Pump::copy_info: the backup info block has %u bytes; a restore takes "
               "at most %u, "
               "so this backup can be stored but not restored\n",
               info_length, STREAM_BLOCK_BYTES));
  if (!store(data.get(), data_bytes)) {
    host_.alert(17);
    ACE_ERROR((LM_ERROR, "Failed to write backup info data to storage: %s\n", sink_.error()));
    return false;
  }
  progress_.total(set_size_(data.get(), data_bytes));
  if (progress_.total() == 0) {
    host_.alert(16);
    ACE_ERROR((LM_ERROR, "Invalid backup set size\n"));
    return false;
  }
  return true;
}

bool Stream_Backup_Pump::copy_image(int fd, const std::string& fifo_path)
{
  for (;;) {
    const ssize_t count = read_write_trait::read(fd, block_.data(), STREAM_BLOCK_BYTES);
    if (count == 0)
      return true;
    // Before the error check: a read that failed because the job was canceled is a cancel.
    const int error = errno;
    if (host_.canceled()) {
      cancel();
      return false;
    }
    if (count < 0) {
      errno = error;
      host_.alert(16);
      ACE_ERROR((LM_ERROR, "Failed to read from fifo %s, errno=%d, %m\n", fifo_path.c_str(), errno));
      return false;
    }
    if (!sink_.write(block_.data(), static_cast<unsigned>(count))) {
      host_.alert(17);
      ACE_ERROR((LM_ERROR, "Failed to write to storage: %s.\n", sink_.error()));
      return false;
    }
    checksum_.update(block_.data(), static_cast<size_t>(count));
    host_.bytes_moved();
    int percent = 0;
    if (progress_.advance(static_cast<uint64_t>(count), percent))
      host_.progress(percent, progress_.total(), progress_.done());
  }
}

bool Stream_Backup_Pump::store(const void* data, unsigned bytes)
{
  if (!sink_.write(data, bytes))
    return false;
  checksum_.update(data, bytes);
  progress_.count(bytes);
  host_.bytes_moved();
  return true;
}

void Stream_Backup_Pump::cancel()
{
  if (!sink_.discard())
    ACE_ERROR((LM_ERROR, "Failed to remove backup file: %s\n", sink_.error()));
  ACE_DEBUG((LM_INFO, "Job(%s) has been canceled.\n", host_.definition_id().c_str()));
}
} // namespace oscar
