#include "storage/codec.h"

#include "unit/storage/storage_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>
#include <zstd.h>

namespace
{
using kestrel_test::test_content;

class Text_Sink : public kestrel::Byte_Sink
{
public:
  bool put(const char* data, unsigned n) override
  {
    text_.append(data, n);
    return text_.size() <= most_;
  }

  std::string text_;
  size_t most_ = std::string::npos;
};

class Text_Source : public kestrel::Byte_Source
{
public:
  Text_Source(const std::string& text, unsigned portion) : text_(text), portion_(portion) {}
  int get(const char*& data) override
  {
    if (done_ >= fail_at_)
      return -1;
    const size_t n = std::min<size_t>(portion_, text_.size() - done_);
    data = text_.data() + done_;
    done_ += n;
    return static_cast<int>(n);
  }

  size_t fail_at_ = std::string::npos;

private:
  const std::string text_;
  const unsigned portion_;
  size_t done_ = 0;
};

class Codec : public testing::TestWithParam<Compression_Method>
{
protected:
  static std::string compress(const std::string& content)
  {
    std::string error;
    Text_Sink sink;
    const auto compressor = kestrel::make_compressor(GetParam(), 1, 1, error);
    EXPECT_NE(nullptr, compressor) << error;
    EXPECT_TRUE(compressor->add(content.data(), static_cast<unsigned>(content.size()), sink));
    EXPECT_TRUE(compressor->finish(sink));
    return sink.text_;
  }

  static bool decompress(Text_Source& source, std::string& content, std::string& error,
                         unsigned capacity = 1000)
  {
    const auto decompressor = kestrel::make_decompressor(GetParam(), error);
    std::vector<char> out(capacity);
    unsigned produced = capacity;
    content.clear();
    while (produced == capacity) {
      if (!decompressor->fill(source, out.data(), capacity, produced)) {
        error = decompressor->error();
        return false;
      }
      content.append(out.data(), produced);
    }
    return true;
  }
};

INSTANTIATE_TEST_SUITE_P(All, Codec, testing::Values(COMPRESSION_ZLIB, COMPRESSION_LZ4, COMPRESSION_ZSTD),
                         [](const auto& info) { return std::string(compression_value_to_name(info.param)); });

TEST_P(Codec, gives_back_the_stream_for_any_portions_of_input_and_output)
{
  const std::string content = test_content(300000);
  const std::string compressed = compress(content);
  EXPECT_EQ(GetParam(), kestrel::detect_compression(compressed.data(), kestrel::COMPRESSION_MAGIC_BYTES));
  std::string got;
  std::string error;
  for (const unsigned portion : {1u, 7u, 4096u, 1000000u}) {
    for (const unsigned capacity : {13u, 4096u, 300000u, 300001u}) {
      Text_Source source(compressed, portion);
      ASSERT_TRUE(decompress(source, got, error, capacity)) << error;
      ASSERT_TRUE(content == got) << portion << " " << capacity;
    }
  }
}

TEST_P(Codec, reads_frames_that_follow_each_other)
{
  const std::string compressed = compress("first ") + compress("") + compress("second");
  for (const unsigned portion : {1u, 1000u}) {
    Text_Source source(compressed, portion);
    std::string got;
    std::string error;
    ASSERT_TRUE(decompress(source, got, error)) << error;
    EXPECT_EQ("first second", got);
  }
}

TEST_P(Codec, refuses_a_frame_cut_anywhere)
{
  const std::string compressed = compress("some words to be compressed, some words to be compressed");
  std::string got;
  std::string error;
  for (size_t size = 0; size < compressed.size(); ++size) {
    Text_Source source(compressed.substr(0, size), 5);
    error.clear();
    EXPECT_FALSE(decompress(source, got, error)) << size;
    EXPECT_EQ(size == 0 ? "the compressed data is missing" : "the compressed data ends early", error) << size;
  }
}

TEST_P(Codec, refuses_what_follows_a_frame_and_is_none)
{
  std::string got;
  std::string error;
  for (const std::string& tail : {std::string("x"), std::string("trailing bytes"), std::string(100, '\0')}) {
    Text_Source source(compress("content") + tail, 1000);
    EXPECT_FALSE(decompress(source, got, error));
    EXPECT_NE("", error);
  }
}

TEST_P(Codec, stops_when_the_sink_or_the_source_fails)
{
  const std::string content = test_content(2000000);
  std::string error;
  Text_Sink sink;
  sink.most_ = 1000;
  const auto compressor = kestrel::make_compressor(GetParam(), 1, 1, error);
  EXPECT_FALSE(compressor->add(content.data(), 2000000, sink) && compressor->finish(sink));
  EXPECT_EQ("", compressor->error());

  Text_Source source(compress(content), 1000);
  source.fail_at_ = 5000;
  std::string got;
  EXPECT_FALSE(decompress(source, got, error));
  EXPECT_EQ("", error);
}

TEST(Frame_Codec, makes_frames_that_together_are_the_stream)
{
  std::string error;
  const auto compressor = kestrel::make_frame_compressor(COMPRESSION_ZSTD, 1, error);
  ASSERT_NE(nullptr, compressor) << error;
  const std::string content = test_content(300000);
  std::string frames;
  for (const auto& piece :
       {content.substr(0, 100000), std::string(), content.substr(100000, 1), content.substr(100001)}) {
    const unsigned n = static_cast<unsigned>(piece.size());
    std::string frame(kestrel::frame_bound(n), '\0');
    const unsigned size =
        compressor->compress(piece.data(), n, &frame[0], static_cast<unsigned>(frame.size()));
    ASSERT_GT(size, 0u) << compressor->error();
    ASSERT_LE(size, frame.size());
    frames.append(frame, 0, size);
  }
  Text_Source source(frames, 1000);
  const auto decompressor = kestrel::make_decompressor(COMPRESSION_ZSTD, error);
  std::string got(content.size() + 1, '\0');
  unsigned produced = 0;
  ASSERT_TRUE(decompressor->fill(source, &got[0], static_cast<unsigned>(got.size()), produced));
  EXPECT_TRUE(content == got.substr(0, produced));
}

/// Entries of an index over time and device, as database pages hold them: few bytes differ from row to row.
std::string index_pages(size_t bytes)
{
  std::string pages;
  for (uint64_t row = 0; pages.size() < bytes; ++row) {
    const uint64_t time = 800000000000000u + row * 1000003;
    const uint64_t block_and_line = (row / 120) << 16 | row % 120;
    const uint32_t device = static_cast<uint32_t>(row % 50);
    pages.append(reinterpret_cast<const char*>(&block_and_line), 6).append("\x10\0", 2);
    pages.append(reinterpret_cast<const char*>(&time), sizeof time);
    pages.append(reinterpret_cast<const char*>(&device), sizeof device).append(4, '\0');
  }
  pages.resize(bytes);
  return pages;
}

/// Rows of a number, words and blanks, as tables hold them.
std::string table_pages(size_t bytes)
{
  static const char* const WORDS[] = {"amber",   "bridge", "copper", "garden",
                                      "lantern", "river",  "signal", "winter"};
  std::mt19937 random(7);
  std::string pages;
  for (uint32_t row = 0; pages.size() < bytes; ++row) {
    pages.append(reinterpret_cast<const char*>(&row), sizeof row);
    for (int word = 0; word < 5; ++word)
      pages.append(WORDS[random() % 8]).append(1, ' ');
    pages.append(std::to_string(random())).append(8, '\0');
  }
  pages.resize(bytes);
  return pages;
}

// Speed is a benchmark's matter; this keeps it from being bought with size.
TEST(Frame_Codec, makes_pages_at_level_1_about_as_small_as_the_library_itself_does)
{
  const size_t bytes = 1024 * 1024;
  std::string frame(kestrel::frame_bound(bytes), '\0');
  std::string error;
  const auto compressor = kestrel::make_frame_compressor(COMPRESSION_ZSTD, 1, error);
  ASSERT_NE(nullptr, compressor) << error;
  for (const std::string& pages : {index_pages(bytes), table_pages(bytes)}) {
    const size_t own =
        compressor->compress(pages.data(), bytes, &frame[0], static_cast<unsigned>(frame.size()));
    const size_t library = ZSTD_compress(&frame[0], frame.size(), pages.data(), bytes, 1);
    ASSERT_GT(own, 0u) << compressor->error();
    ASSERT_FALSE(ZSTD_isError(library)) << ZSTD_getErrorName(library);
    EXPECT_LT(own, library + library / 50);
  }
}

TEST(Frame_Codec, tells_why_it_cannot_compress)
{
  std::string error;
  const auto compressor = kestrel::make_frame_compressor(COMPRESSION_ZSTD, 1, error);
  char out[4];
  EXPECT_EQ(0u, compressor->compress("some words", 10, out, sizeof out));
  EXPECT_NE(std::string::npos, compressor->error().find("the zstd compressor failed: "));
}

TEST(Frame_Codec, serves_the_fastest_levels_of_zstd_only)
{
  EXPECT_TRUE(kestrel::compresses_in_frames(COMPRESSION_ZSTD, -5));
  EXPECT_TRUE(kestrel::compresses_in_frames(COMPRESSION_ZSTD, 2));
  EXPECT_FALSE(kestrel::compresses_in_frames(COMPRESSION_ZSTD, 3));
  EXPECT_FALSE(kestrel::compresses_in_frames(COMPRESSION_ZSTD, 0));
  std::string error;
  for (const Compression_Method method : {COMPRESSION_NONE, COMPRESSION_ZLIB, COMPRESSION_LZ4}) {
    EXPECT_FALSE(kestrel::compresses_in_frames(method, 1));
    EXPECT_EQ(nullptr, kestrel::make_frame_compressor(method, 1, error));
    EXPECT_NE("", error);
  }
}

TEST(Codec_Choice, knows_no_codec_for_other_methods)
{
  for (const Compression_Method method : {COMPRESSION_NONE, 4u}) {
    std::string error;
    EXPECT_EQ(nullptr, kestrel::make_compressor(method, 1, 1, error));
    EXPECT_EQ("compression method " + std::to_string(method) + " is unknown", error);
    EXPECT_EQ(nullptr, kestrel::make_decompressor(method, error));
  }
}

TEST(Codec_Choice, detects_no_method_in_short_or_other_bytes)
{
  EXPECT_EQ(COMPRESSION_NONE, kestrel::detect_compression("\x1f\x8b", 2));
  EXPECT_EQ(COMPRESSION_NONE, kestrel::detect_compression("\x28\xb5\x2f", 3));
  EXPECT_EQ(COMPRESSION_NONE, kestrel::detect_compression("\x1f\x8b\x07\x00", 4));
  EXPECT_EQ(COMPRESSION_NONE, kestrel::detect_compression(nullptr, 0));
}
} // namespace
