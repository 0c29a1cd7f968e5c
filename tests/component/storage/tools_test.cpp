#include "storage/client_io.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <unistd.h>

// Stored files must stay readable without this product, so the ordinary tools have to agree with it.

namespace
{
using kestrel_test::read_file;
using kestrel_test::Temp_Dir;

struct Tool {
  Compression_Method method;
  const char* name;
  const char* decompress;
  const char* test;
};

const Tool TOOLS[] = {{COMPRESSION_ZLIB, "gzip", "gzip -dc", "gzip -tq"},
                      {COMPRESSION_LZ4, "lz4", "lz4 -qdc", "lz4 -qt"},
                      {COMPRESSION_ZSTD, "zstd", "zstd -qdc", "zstd -qt"}};

class Tools_Test : public testing::TestWithParam<Tool>
{
protected:
  Tools_Test()
  {
    options_.storage_path = dir_.make_dir("pool");
    options_.compression_method = GetParam().method;
  }

  static int run(const std::string& command) { return std::system(command.c_str()); }

  void store(const std::string& content)
  {
    Client_IO_Ex client;
    ASSERT_TRUE(client.connect(options_.storage_path + "/s", options_));
    ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
    ASSERT_TRUE(client.write(content.data(), static_cast<unsigned>(content.size())));
    ASSERT_TRUE(client.close()) << client.error();
  }

  Temp_Dir dir_;
  Client_IO_Base::Options options_;
};

INSTANTIATE_TEST_SUITE_P(All, Tools_Test, testing::ValuesIn(TOOLS),
                         [](const auto& info) { return info.param.name; });

std::string random_rows(size_t size)
{
  std::mt19937 random(7);
  std::string content;
  while (content.size() < size)
    content += "row " + std::to_string(random()) + " of a table\n";
  content.resize(size);
  return content;
}

TEST_P(Tools_Test, read_what_was_stored_at_every_size_level_and_number_of_workers)
{
  ASSERT_EQ(0, run(std::string("command -v ") + GetParam().name + " >/dev/null")) << "install the tool";
  const std::string stored = options_.storage_path + "/s/f";
  for (const size_t size : {0, 1, 512, 262143, 262144, 262145, 1048577, 9000001}) {
    for (const int level : {1, 9}) {
      for (const unsigned workers : {1u, 2u, 4u}) {
        if (workers > 1 && GetParam().method != COMPRESSION_ZSTD)
          continue;
        SCOPED_TRACE(std::to_string(size) + " bytes, level " + std::to_string(level) + ", " +
                     std::to_string(workers) + " workers");
        options_.compression_level = level;
        options_.compression_workers = workers;
        const std::string content = random_rows(size);
        store(content);
        ASSERT_EQ(0, run(GetParam().test + std::string(" < ") + stored));
        ASSERT_EQ(0, run(GetParam().decompress + std::string(" < ") + stored + " > " + (dir_ / "out")));
        ASSERT_TRUE(content == read_file(dir_ / "out"));
      }
    }
  }
}

TEST_P(Tools_Test, find_damage_by_the_frames_own_checksum)
{
  store(random_rows(300000));
  const std::string stored = options_.storage_path + "/s/f";
  std::string bytes = read_file(stored);
  bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 1);
  dir_.write("pool/s/f", bytes);
  EXPECT_NE(0, run(GetParam().test + std::string(" < ") + stored + " 2>/dev/null"));
}
} // namespace
