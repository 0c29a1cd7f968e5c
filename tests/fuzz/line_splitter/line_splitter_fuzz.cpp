#include "process/line_splitter.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{
/// Puts the pieces together again: a line begins with "\n", the rest of a long one follows.
class Joiner : public kestrel::Line_Sink
{
public:
  explicit Joiner(size_t max_line) : max_line_(max_line) {}
  int line(const char* text, unsigned int length) override
  {
    if (length > max_line_ || text[length] != '\0')
      ::abort();
    joined += "\n" + std::string(text, length);
    return 0;
  }
  int segment(const char* data, unsigned int length) override
  {
    joined.append(data, length);
    return 0;
  }
  std::string joined;

private:
  const size_t max_line_;
};
} // namespace

// The first two bytes choose the sizes of the pieces and of the longest line. Whatever they are, the lines
// put together are the text: only where it was cut may differ.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  if (size < 2)
    return 0;
  const size_t piece = data[0] + 1u;
  Joiner joiner(data[1] + 1u);
  const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
  kestrel::Line_Splitter splitter(joiner, data[1] + 1u);
  std::vector<char> buffer(piece + 1);
  for (size_t at = 0; at < text.size(); at += piece) {
    const size_t length = std::min(piece, text.size() - at);
    std::copy_n(text.data() + at, length, buffer.data());
    splitter.feed(buffer.data(), length);
  }
  splitter.finish();

  std::string expected = text.empty() ? "" : "\n" + text;
  if (!text.empty() && text.back() == '\n')
    expected.pop_back();
  if (joiner.joined != expected)
    ::abort();
  return 0;
}
