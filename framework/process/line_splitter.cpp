#include "process/line_splitter.h"

#include <algorithm>
#include <cstring>

namespace kestrel
{
Line_Sink::~Line_Sink() {}

Line_Splitter::Line_Splitter(Line_Sink& sink, size_t max_line)
    : sink_(sink), max_line_(std::max<size_t>(max_line, 1))
{
}

void Line_Splitter::feed(char* data, size_t length)
{
  char* const end = data + length;
  while (data != end && !stopped_) {
    char* const newline = static_cast<char*>(::memchr(data, '\n', static_cast<size_t>(end - data)));
    char* const part_end = newline ? newline : end;
    const size_t part = static_cast<size_t>(part_end - data);
    if (newline && begun_.empty() && !in_segments_ && part <= max_line_) {
      *newline = '\0';
      stopped_ = sink_.line(data, static_cast<unsigned int>(part)) < 0;
    } else {
      take_part(data, part);
      if (newline)
        end_line();
    }
    data = newline ? newline + 1 : end;
  }
}

void Line_Splitter::take_part(char* data, size_t length)
{
  if (!in_segments_) {
    const size_t room = std::min(length, max_line_ - begun_.size());
    begun_.append(data, room);
    data += room;
    length -= room;
    // A line of exactly max_line_ bytes is a whole one if its end comes next.
    if (length == 0)
      return;
    stopped_ = sink_.line(begun_.c_str(), static_cast<unsigned int>(begun_.size())) < 0;
    std::string().swap(begun_);
    in_segments_ = true;
  }
  if (length > 0 && !stopped_)
    stopped_ = sink_.segment(data, static_cast<unsigned int>(length)) < 0;
}

void Line_Splitter::end_line()
{
  if (!in_segments_ && !stopped_)
    stopped_ = sink_.line(begun_.c_str(), static_cast<unsigned int>(begun_.size())) < 0;
  in_segments_ = false;
  begun_.clear();
}

void Line_Splitter::finish()
{
  if (!begun_.empty())
    end_line();
  in_segments_ = false;
}
} // namespace kestrel
