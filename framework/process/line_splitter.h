#pragma once

#include <cstddef>
#include <string>

namespace kestrel
{
/// Receives what a Line_Splitter finds.
class Line_Sink
{
public:
  virtual ~Line_Sink();
  /// `length` bytes and then a NUL, valid during the call. Negative: no more calls, please.
  virtual int line(const char* text, unsigned int length) = 0;
  /// Bytes of a line behind its first max_line ones.
  virtual int segment(const char* data, unsigned int length) = 0;
};

/// Cuts a stream of bytes into lines at '\n'. Lines that lie whole in one block are delivered where they are,
/// without a copy.
/// Threads:   one at a time.
/// Ownership: the sink is not owned and must outlive the splitter.
class Line_Splitter
{
public:
  /// max_line: most bytes of a line (at least 1); what is longer is cut there and goes on in segments.
  Line_Splitter(Line_Sink& sink, size_t max_line);

  /// Takes the next bytes. Overwrites line ends, and the byte behind the last one: data[length] must be
  /// writable.
  void feed(char* data, size_t length);
  /// The end of the stream: delivers a last line without an end.
  void finish();
  /// True once the sink has returned a negative value; everything is dropped from then on.
  bool stopped() const { return stopped_; }

private:
  void take_part(char* data, size_t length);
  void end_line();

  Line_Sink& sink_;
  const size_t max_line_;
  std::string begun_;        ///< the line of which only a part has come
  bool in_segments_ = false; ///< the line's first max_line_ bytes are delivered, its end has not come
  bool stopped_ = false;
};
} // namespace kestrel
