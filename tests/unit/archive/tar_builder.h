#pragma once

#include <cstdint>
#include <string>

namespace kestrel_test
{
/// Makes tar files entry by entry, also such as no writer of ours would make.
class Tar_Builder
{
public:
  enum Type : char {
    file = '0',
    hard_link = '1',
    symbolic_link = '2',
    device = '3',
    directory = '5',
    fifo = '6'
  };

  /// A plain header; the size is that of the content unless given. Returns the offset of the content.
  uint64_t add(const std::string& name, const std::string& content, char type = file,
               const std::string& link = std::string());
  /// A header alone, for a size that nobody wants to fill; up to 8 GiB - 1.
  void add_header(const std::string& name, uint64_t size, char type, const std::string& link);
  /// Bytes as they are, filled up to whole records.
  void add_bytes(const std::string& bytes);
  void end() { tar_.append(1024, '\0'); }

  const std::string& tar() const { return tar_; }
  uint64_t size() const { return tar_.size(); }

private:
  std::string tar_;
};
} // namespace kestrel_test
