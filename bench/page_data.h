#pragma once

#include <random>
#include <string>

namespace bench
{
constexpr unsigned PAGE_BYTES = 8192;

/// Replaces page by one with a random header, rows of numbers and words from a small vocabulary, and a zero-filled
/// rest: it compresses about as well as a database's page does. Units: PAGE_BYTES bytes, always.
inline void fill_page(std::string& page, std::mt19937& random)
{
  static const char* const WORDS[] = {"account", "branch", "teller",   "history",
                                      "balance", "filler", "customer", "order"};
  page.clear();
  for (int i = 0; i < 6; ++i)
    page.append(std::to_string(random()));
  const size_t used = PAGE_BYTES - random() % 2048;
  while (page.size() < used) {
    page.append(WORDS[random() % 8]);
    page.append(std::to_string(random()));
    page.append(24, ' ');
  }
  page.resize(PAGE_BYTES, '\0');
}

/// The info block that begins every stream: a head of 512 bytes, whose first four give the length of the whole block
/// (big-endian), and a text whose one line names a file and how many bytes the stream will have.
inline std::string info_block(const std::string& file, uint64_t stream_bytes)
{
  const std::string text = file + "=" + std::to_string(stream_bytes) + "\n";
  std::string block(512, '\0');
  const size_t length = block.size() + text.size();
  for (int i = 0; i < 4; ++i)
    block[static_cast<size_t>(i)] = static_cast<char>(length >> (24 - 8 * i));
  return block + text;
}
} // namespace bench
