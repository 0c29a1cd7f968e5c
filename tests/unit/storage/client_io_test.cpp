#include "unit/storage/storage_fixture.h"

#include "base/checksum.h"

#include <algorithm>
#include <sys/stat.h>

using kestrel_test::exists;
using kestrel_test::names_in;
using kestrel_test::read_file;
using kestrel_test::test_content;

namespace
{
class Client_IO_Test : public kestrel_test::Storage_Fixture
{
};

class Client_IO_Methods : public kestrel_test::Storage_Fixture,
                          public testing::WithParamInterface<std::tuple<Compression_Method, unsigned, uint64_t>>
{
protected:
  Client_IO_Methods()
  {
    options_.compression_method = std::get<0>(GetParam());
    options_.compression_workers = std::get<1>(GetParam());
    options_.rate_limits.read_limit(std::get<2>(GetParam()));
  }
};

// A limit that slows nothing down: what is stored uncompressed is read by another path with a limit than without.
const uint64_t LIMITED = uint64_t(1) << 40;

INSTANTIATE_TEST_SUITE_P(All, Client_IO_Methods,
                         testing::Values(std::make_tuple(0u, 1u, 0), std::make_tuple(0u, 1u, LIMITED),
                                         std::make_tuple(1u, 1u, 0), std::make_tuple(2u, 1u, 0),
                                         std::make_tuple(3u, 1u, 0), std::make_tuple(3u, 3u, 0)),
                         [](const auto& info) {
                           return std::string(compression_value_to_name(std::get<0>(info.param))) + "_" +
                                  std::to_string(std::get<1>(info.param)) + "_workers" +
                                  (std::get<2>(info.param) != 0 ? "_limited" : "");
                         });

TEST_P(Client_IO_Methods, gives_back_what_was_stored_for_sizes_around_every_block_edge)
{
  const size_t block = 256 * 1024;
  const size_t mib = 1024 * 1024;
  for (const size_t size :
       {size_t(0), size_t(1), size_t(511), size_t(512), size_t(513), size_t(8191), size_t(8192), size_t(8193),
        block - 1, block, block + 1, mib - 1, mib, mib + 1, 5 * mib + 77}) {
    SCOPED_TRACE(size);
    const std::string content = test_content(size);
    store("f", content);
    EXPECT_TRUE(content == fetch("f"));
  }
}

TEST_P(Client_IO_Methods, takes_and_gives_pieces_of_any_size)
{
  const std::string content = test_content(700001);
  for (const unsigned piece : {1000u, 65536u, 300001u, 10000000u}) {
    SCOPED_TRACE(piece);
    std::string error;
    std::string got;
    ASSERT_TRUE(store("f", content, error, piece)) << error;
    ASSERT_TRUE(fetch("f", got, error, piece)) << error;
    EXPECT_TRUE(content == got);
  }
}

TEST_P(Client_IO_Methods, tells_sizes_and_checksums_after_close_and_after_the_end)
{
  const std::string content = test_content(3000000);
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0)) << client.error();
  ASSERT_TRUE(client.write(content.data(), 3000000));
  EXPECT_EQ("", client.original_checksum());
  ASSERT_TRUE(client.close()) << client.error();
  const std::string stored = read_file(stored_path("f"));
  EXPECT_EQ(3000000u, client.original_size());
  EXPECT_EQ(stored.size(), client.storage_size());
  EXPECT_EQ(kestrel::xxh3_128_hex(content.data(), content.size()), client.original_checksum());
  EXPECT_EQ(kestrel::xxh3_128_hex(stored.data(), stored.size()), client.storage_checksum());
  const std::string original_checksum = client.original_checksum();
  const std::string storage_checksum = client.storage_checksum();

  ASSERT_TRUE(client.open("f", 1, 0, 0)) << client.error();
  EXPECT_EQ("", client.original_checksum());
  std::string got(3000001, '\0');
  EXPECT_EQ(3000000, client.read(&got[0], 3000001));
  EXPECT_EQ(original_checksum, client.original_checksum());
  EXPECT_EQ(storage_checksum, client.storage_checksum());
  EXPECT_EQ(3000000u, client.original_size());
  EXPECT_EQ(stored.size(), client.storage_size());
  EXPECT_TRUE(client.close());
  EXPECT_EQ(original_checksum, client.original_checksum());
  EXPECT_EQ(stored.size(), client.storage_size());
}

TEST_P(Client_IO_Methods, reads_with_any_method_number_in_the_options)
{
  const std::string content = test_content(100000);
  store("f", content);
  for (const Compression_Method method : {0u, 1u, 2u, 3u, 77u}) {
    options_.compression_method = method;
    EXPECT_TRUE(content == fetch("f")) << method;
  }
}

TEST_P(Client_IO_Methods, reads_again_from_the_start_after_closing_half_way)
{
  const std::string content = test_content(6000000);
  store("f", content);
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  char head[512];
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(client.open("f", 1, 0, 0)) << client.error();
    ASSERT_EQ(512, client.read(head, 512));
    EXPECT_EQ(0, content.compare(0, 512, head, 512));
    EXPECT_EQ("", client.original_checksum());
    EXPECT_TRUE(client.close());
  }
  EXPECT_TRUE(content == fetch("f"));
}

TEST_P(Client_IO_Methods, fills_the_request_unless_the_file_ends)
{
  store("f", test_content(1000000));
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 1, 0, 0));
  std::vector<char> buffer(999999);
  EXPECT_EQ(512, client.read(buffer.data(), 512));
  EXPECT_EQ(999000, client.read(buffer.data(), 999000));
  EXPECT_EQ(0, client.read(buffer.data(), 0));
  EXPECT_EQ(488, client.read(buffer.data(), 8192));
  EXPECT_EQ(0, client.read(buffer.data(), 8192));
  EXPECT_EQ(0, client.read(buffer.data(), 8192));
}

TEST_P(Client_IO_Methods, finds_every_kind_of_damage_before_the_end_is_seen)
{
  const std::string content = test_content(400000);
  store("f", content);
  const std::string stored = read_file(stored_path("f"));
  const std::string side = read_file(side_path("f"));
  std::vector<std::string> damaged;
  for (const size_t position : {size_t(0), size_t(3), size_t(5), size_t(9), stored.size() / 2,
                                stored.size() - 9, stored.size() - 5, stored.size() - 1}) {
    damaged.push_back(stored);
    damaged.back()[position] = static_cast<char>(damaged.back()[position] ^ 0x10);
  }
  damaged.push_back(stored.substr(0, stored.size() - 1));
  damaged.push_back(stored.substr(0, stored.size() / 2));
  damaged.push_back("");
  damaged.push_back(stored + '\0');
  damaged.push_back(stored + stored);
  damaged.push_back(std::string(stored.size(), '\0'));
  std::string swapped = stored;
  std::swap(swapped[stored.size() / 2], swapped[stored.size() / 2 + 4]);
  damaged.push_back(swapped);
  for (size_t i = 0; i < damaged.size(); ++i) {
    SCOPED_TRACE(i);
    dir_.write("pool/source/f", damaged[i]);
    std::string got;
    std::string error;
    ASSERT_FALSE(fetch("f", got, error));
    EXPECT_NE(std::string::npos, error.find("/source/f is damaged: ")) << error;
    EXPECT_NE(std::string::npos, error.find("take another backup")) << error;
  }
  dir_.write("pool/source/f", stored);
  EXPECT_TRUE(content == fetch("f"));
  EXPECT_EQ(side, read_file(side_path("f")));
}

TEST_P(Client_IO_Methods, finds_flipped_bits_of_the_side_file)
{
  store("f", test_content(1000));
  const std::string side = read_file(side_path("f"));
  for (size_t position = 0; position < side.size(); position += 7) {
    std::string flipped = side;
    flipped[position] = static_cast<char>(flipped[position] ^ (1 << position % 8));
    dir_.write("pool/source/f.meta", flipped);
    std::string got;
    std::string error;
    ASSERT_FALSE(fetch("f", got, error)) << position;
    ASSERT_NE(std::string::npos,
              error.find("/source/f: its side file cannot be used: it is damaged or incomplete"))
        << position << " " << error;
  }
}

TEST_P(Client_IO_Methods, refuses_a_missing_shortened_or_foreign_side_file)
{
  const std::string content = test_content(5000);
  store("f", content);
  store("same_size", test_content(5000, 2));
  store("longer", test_content(5001, 2));
  const std::string side = read_file(side_path("f"));
  std::string got;
  std::string error;
  for (size_t size = 1; size < side.size(); size += 13) {
    dir_.write("pool/source/f.meta", side.substr(0, size));
    ASSERT_FALSE(fetch("f", got, error)) << size;
  }
  for (const char* other : {"same_size", "longer"}) {
    dir_.write("pool/source/f.meta", read_file(side_path(other)));
    ASSERT_FALSE(fetch("f", got, error)) << other;
    EXPECT_NE(std::string::npos, error.find("is damaged")) << error;
  }
  for (const std::string& unusable : {std::string(), std::string("{}\n"), side + "x"}) {
    dir_.write("pool/source/f.meta", unusable);
    ASSERT_FALSE(fetch("f", got, error)) << unusable;
    EXPECT_NE(std::string::npos, error.find("side file")) << error;
  }
  ASSERT_EQ(0, ::unlink(side_path("f").c_str()));
  ASSERT_FALSE(fetch("f", got, error));
  EXPECT_NE(std::string::npos, error.find("its side file is missing")) << error;
}

TEST_P(Client_IO_Methods, leaves_nothing_of_a_cancelled_file)
{
  const std::string content = test_content(2000000);
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0));
  ASSERT_TRUE(client.write(content.data(), 2000000));
  ASSERT_TRUE(client.close());
  ASSERT_TRUE(client.remove("f"));
  EXPECT_TRUE(names_in(location_).empty());
}

TEST_P(Client_IO_Methods, leaves_an_abandoned_file_unfinished)
{
  const std::string content = test_content(2000000);
  {
    Client_IO_Ex client;
    ASSERT_TRUE(client.connect(location_, options_));
    ASSERT_TRUE(client.open("f", 2, 0, 0));
    ASSERT_TRUE(client.write(content.data(), 2000000));
    EXPECT_EQ(std::vector<std::string>{"f.partial"}, names_in(location_));
  }
  EXPECT_EQ(std::vector<std::string>{"f.partial"}, names_in(location_));
  std::string got;
  std::string error;
  EXPECT_FALSE(fetch("f", got, error));
  EXPECT_NE(std::string::npos, error.find("it was never finished")) << error;
  store("f", content);
  EXPECT_EQ((std::vector<std::string>{"f", "f.meta"}), names_in(location_));
}

TEST_F(Client_IO_Test, stores_an_uncompressed_stream_as_it_is)
{
  const std::string content = test_content(1234567);
  store("f", content);
  EXPECT_TRUE(content == read_file(stored_path("f")));
}

TEST_F(Client_IO_Test, reads_what_is_in_memory_as_what_is_not)
{
  const std::string content = test_content(3 * 1024 * 1024 + 77);
  store("f", content);
  EXPECT_TRUE(content == kestrel_test::read_file(stored_path("f")));
  for (const unsigned piece : {1000u, 8192u, 5000000u}) {
    std::string got;
    std::string error;
    EXPECT_TRUE(fetch("f", got, error, piece)) << error;
    EXPECT_TRUE(content == got);
  }
  std::string damaged = content;
  damaged[2 * 1024 * 1024] = static_cast<char>(damaged[2 * 1024 * 1024] ^ 1);
  dir_.write("pool/source/f", damaged);
  std::string got;
  std::string error;
  EXPECT_FALSE(fetch("f", got, error));
  EXPECT_NE(std::string::npos, error.find("the checksum of its content is wrong")) << error;
  EXPECT_LT(got.size(), content.size());
}

TEST_F(Client_IO_Test, reads_uncompressed_content_that_begins_like_a_compressed_file)
{
  for (const char* magic : {"\x1f\x8b\x08\x01", "\x04\x22\x4d\x18", "\x28\xb5\x2f\xfd"}) {
    const std::string content = std::string(magic, 4) + test_content(10000);
    store("f", content);
    options_.compression_method = 3;
    EXPECT_TRUE(content == fetch("f"));
    options_.compression_method = 0;
  }
}

TEST_F(Client_IO_Test, compresses_at_any_level_asked_for)
{
  const std::string content = test_content(200000);
  for (const Compression_Method method : {1u, 2u, 3u}) {
    for (const int level : {-1000000, 0, 1, 6, 9, 12, 1000000}) {
      SCOPED_TRACE(std::to_string(method) + " level " + std::to_string(level));
      options_.compression_method = method;
      options_.compression_level = level;
      store("f", content);
      EXPECT_TRUE(content == fetch("f"));
      // Incompressible words in lz4 stay as they are, so "smaller at all" is what every method must reach.
      EXPECT_LT(read_file(stored_path("f")).size(), content.size());
    }
  }
}

TEST_F(Client_IO_Test, refuses_to_write_with_an_unknown_method)
{
  options_.compression_method = 4;
  std::string error;
  EXPECT_FALSE(store("f", "x", error));
  EXPECT_EQ("compression method 4 is unknown", error);
  EXPECT_FALSE(exists(location_));
}

TEST_F(Client_IO_Test, accepts_an_empty_write)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_TRUE(client.open("f", 2, 0, 0));
  EXPECT_TRUE(client.write("", 0));
  EXPECT_TRUE(client.write(nullptr, 0));
  EXPECT_TRUE(client.close());
  EXPECT_EQ("", fetch("f"));
}

TEST_F(Client_IO_Test, replaces_a_file_only_when_overwriting_is_allowed)
{
  store("f", "first");
  store("f", "second");
  EXPECT_EQ("second", fetch("f"));
  options_.overwrite = false;
  std::string error;
  EXPECT_FALSE(store("f", "third", error));
  EXPECT_EQ("cannot create " + stored_path("f") +
                ": a stored file of this name exists and may not be replaced",
            error);
  EXPECT_EQ("second", fetch("f"));
  store("g", "new");
  EXPECT_EQ("new", fetch("g"));
}

TEST_F(Client_IO_Test, keeps_the_old_file_until_the_new_one_is_complete)
{
  store("f", "first");
  {
    Client_IO_Ex client;
    ASSERT_TRUE(client.connect(location_, options_));
    ASSERT_TRUE(client.open("f", 2, 0, 0));
    ASSERT_TRUE(client.write("second", 6));
    EXPECT_EQ("first", fetch("f"));
  }
  EXPECT_EQ("first", fetch("f"));
}

TEST_F(Client_IO_Test, lets_only_one_writer_of_a_name_in)
{
  Client_IO_Ex first;
  ASSERT_TRUE(first.connect(location_, options_));
  ASSERT_TRUE(first.open("f", 2, 0, 0));
  ASSERT_TRUE(first.write("first", 5));
  std::string error;
  EXPECT_FALSE(store("f", "second", error));
  EXPECT_NE(std::string::npos, error.find("another job is writing this file")) << error;
  EXPECT_TRUE(first.close()) << first.error();
  EXPECT_EQ("first", fetch("f"));
  store("f", "second");
  EXPECT_EQ("second", fetch("f"));
}

TEST_F(Client_IO_Test, replaces_a_leftover_that_is_longer_than_the_new_file)
{
  store("g", "x");
  dir_.write("pool/source/f.partial", test_content(100000));
  store("f", "short");
  EXPECT_EQ("short", fetch("f"));
  EXPECT_EQ(5u, read_file(stored_path("f")).size());
}

TEST_F(Client_IO_Test, tells_why_it_cannot_connect)
{
  Client_IO_Ex client;
  options_.storage_path = dir_ / "absent";
  EXPECT_FALSE(client.connect(options_.storage_path + "/source", options_));
  EXPECT_EQ(
      "cannot use the pool directory " + (dir_ / "absent") +
          ": No such file or directory; check that the pool's file system is mounted and the path is right",
      std::string(client.error()));
  options_.storage_path = dir_.write("file", "");
  EXPECT_FALSE(client.connect(options_.storage_path + "/source", options_));
  EXPECT_NE(std::string::npos, std::string(client.error()).find("Not a directory")) << client.error();
  options_.back_end = "moon";
  EXPECT_FALSE(client.connect(location_, options_));
  EXPECT_NE(std::string::npos, std::string(client.error()).find("no storage back end named \"moon\""))
      << client.error();
}

TEST_F(Client_IO_Test, never_makes_the_pool_directory)
{
  ASSERT_EQ(0, ::rmdir(pool_.c_str()));
  std::string error;
  EXPECT_FALSE(store("f", "x", error));
  EXPECT_FALSE(exists(pool_));
}

TEST_F(Client_IO_Test, notices_a_pool_that_vanishes_after_connecting)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  ASSERT_EQ(0, ::rmdir(pool_.c_str()));
  EXPECT_FALSE(client.open("f", 2, 0, 0));
  EXPECT_NE(std::string::npos, std::string(client.error()).find("cannot make the folder " + location_))
      << client.error();
  EXPECT_FALSE(client.open("f", 1, 0, 0));
  EXPECT_NE(std::string::npos, std::string(client.error()).find("cannot open " + stored_path("f")))
      << client.error();
}

TEST_F(Client_IO_Test, refuses_locations_that_leave_the_pool)
{
  Client_IO_Ex client;
  for (const std::string& location :
       {pool_, pool_ + "/", pool_ + "/..", pool_ + "/a/../../b", pool_ + "/a//b", pool_ + "/.",
        std::string("relative/x"), std::string(), std::string("x"), pool_ + "/a/"}) {
    EXPECT_EQ(location == pool_, client.connect(location, Client_IO_Base::Options())) << location;
    EXPECT_EQ(location == pool_, client.connect(location, options_)) << location;
  }
  EXPECT_TRUE(client.connect(pool_ + "/..a/b..", options_)) << client.error();
}

TEST_F(Client_IO_Test, makes_folders_of_several_levels)
{
  location_ = pool_ + "/host/source";
  store("f", "x");
  EXPECT_EQ("x", fetch("f"));
}

TEST_F(Client_IO_Test, refuses_names_that_are_no_plain_file_names)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  for (const std::string& name : {std::string(), std::string("."), std::string(".."), std::string("a/b"),
                                  std::string("../f"), std::string("/f"), std::string("a\nb"),
                                  std::string("a\0b", 3), std::string("f.meta"), std::string("f.partial")}) {
    EXPECT_FALSE(client.open(name, 2, 0, 0)) << name;
    EXPECT_NE(std::string::npos, std::string(client.error()).find("cannot be the name of a stored file"));
    EXPECT_FALSE(client.open(name, 1, 0, 0)) << name;
    EXPECT_FALSE(client.remove(name)) << name;
  }
}

TEST_F(Client_IO_Test, refuses_calls_in_the_wrong_order)
{
  Client_IO_Ex client;
  char byte;
  EXPECT_STREQ("", client.error());
  EXPECT_FALSE(client.open("f", 2, 0, 0));
  EXPECT_STREQ("the storage client is not connected", client.error());
  EXPECT_FALSE(client.remove("f"));
  ASSERT_TRUE(client.connect(location_, options_));
  EXPECT_FALSE(client.write("x", 1));
  EXPECT_STREQ("no file is open for writing", client.error());
  EXPECT_EQ(-1, client.read(&byte, 1));
  EXPECT_STREQ("no file is open for reading", client.error());
  EXPECT_FALSE(client.open("f", 3, 0, 0));
  EXPECT_TRUE(client.close());
  ASSERT_TRUE(client.open("f", 2, 0, 0));
  EXPECT_EQ(-1, client.read(&byte, 1));
  EXPECT_TRUE(client.close());
  EXPECT_TRUE(client.close());
  ASSERT_TRUE(client.open("f", 1, 0, 0));
  EXPECT_FALSE(client.write("x", 1));
}

TEST_F(Client_IO_Test, removes_what_is_there_and_does_not_mind_what_is_not)
{
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect(location_, options_));
  EXPECT_TRUE(client.remove("f")) << client.error();
  store("f", "x");
  dir_.write("pool/source/f.partial", "leftover");
  store("g", "y");
  EXPECT_TRUE(client.remove("f")) << client.error();
  EXPECT_EQ((std::vector<std::string>{"g", "g.meta"}), names_in(location_));
  EXPECT_TRUE(client.remove("f")) << client.error();
}

TEST_F(Client_IO_Test, does_not_hang_on_a_pipe_in_the_pool)
{
  store("f", "x");
  ASSERT_EQ(0, ::mkfifo(stored_path("p").c_str(), 0600));
  ASSERT_EQ(0, ::mkfifo(partial_path("q").c_str(), 0600));
  std::string got;
  std::string error;
  EXPECT_FALSE(fetch("p", got, error));
  EXPECT_NE(std::string::npos, error.find("it is no regular file")) << error;
  EXPECT_FALSE(store("p", "x", error));
  EXPECT_FALSE(store("q", "x", error));
  EXPECT_NE(std::string::npos, error.find(partial_path("q"))) << error;
}

TEST_F(Client_IO_Test, keeps_extra_options_and_refuses_empty_names)
{
  EXPECT_TRUE(options_.set_extra_option("X-Access-Key", "one"));
  EXPECT_TRUE(options_.set_extra_option("X-Access-Key", "two"));
  ASSERT_NE(nullptr, options_.extra_option("X-Access-Key"));
  EXPECT_EQ("two", *options_.extra_option("X-Access-Key"));
  EXPECT_FALSE(options_.set_extra_option("", "x"));
  EXPECT_FALSE(options_.set_extra_option(nullptr, "x"));
  EXPECT_EQ(nullptr, options_.extra_option("other"));
  EXPECT_EQ(nullptr, options_.extra_option(nullptr));
}
} // namespace
