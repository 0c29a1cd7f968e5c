#include "base/ace_ifstream.h"

#include "base/file_system.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

ACE_ifstream::ACE_ifstream(size_t bufsize) : buffer_(bufsize > 0 ? bufsize : 1) {}

int ACE_ifstream::open(const char* path, int flags)
{
  begin_ = end_ = 0;
  eof_ = false;
  file_.reset(kestrel::above_stdio(kestrel::file_system().open(path, flags | O_CLOEXEC, 0600)));
  last_error_ = file_.get() < 0 ? errno : 0;
  return file_.get() < 0 ? -1 : 0;
}

bool ACE_ifstream::fill()
{
  ssize_t count;
  do {
    count = kestrel::file_system().read(file_.get(), buffer_.data(), buffer_.size());
  } while (count < 0 && errno == EINTR);
  if (count < 0)
    last_error_ = errno;
  if (count == 0)
    eof_ = true;
  begin_ = 0;
  end_ = count > 0 ? static_cast<size_t>(count) : 0;
  return count > 0;
}

bool ACE_ifstream::getline(std::string& line)
{
  line.clear();
  while (file_.get() >= 0 && !eof_ && last_error_ == 0) {
    if (begin_ == end_ && !fill())
      break;
    const char* const first = buffer_.data() + begin_;
    const char* const newline = static_cast<const char*>(::memchr(first, '\n', end_ - begin_));
    const size_t length = newline ? static_cast<size_t>(newline - first) : end_ - begin_;
    line.append(first, length);
    begin_ += length;
    if (newline) {
      ++begin_;
      return true;
    }
  }
  if (last_error_ != 0)
    line.clear();
  return !line.empty();
}
