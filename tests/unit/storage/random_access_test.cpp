#include "storage/back_end.h"
#include "storage_fixture.h"
#include "support/fault_file_system.h"

#include <cerrno>

using namespace kestrel_test;

class Random_Access : public Storage_Fixture
{
protected:
  Random_Access() { EXPECT_TRUE(client_.connect(location_, options_)); }

  std::string read_at(uint64_t offset, unsigned n)
  {
    std::string data(n, '\0');
    const int count = client_.read_at(offset, &data[0], n);
    data.resize(count < 0 ? 0 : static_cast<unsigned>(count));
    return count < 0 ? client_.error() : data;
  }

  Client_IO_Ex client_;
};

TEST_F(Random_Access, reads_any_place_of_an_uncompressed_file)
{
  const std::string content = test_content(300000);
  store("A", content);
  bool possible = false;
  ASSERT_TRUE(client_.open_random("A", possible)) << client_.error();
  ASSERT_TRUE(possible);
  EXPECT_EQ(content.size(), client_.random_size());
  EXPECT_EQ(content.substr(299990), read_at(299990, 100));
  EXPECT_EQ(content.substr(1, 70000), read_at(1, 70000));
  EXPECT_EQ("", read_at(300000, 1));
  EXPECT_EQ(70010u, client_.original_size());
}

TEST_F(Random_Access, is_not_possible_in_a_compressed_file_which_can_still_be_read)
{
  options_.compression_method = COMPRESSION_ZSTD;
  store("A", "content");
  bool possible = true;
  ASSERT_TRUE(client_.open_random("A", possible)) << client_.error();
  EXPECT_FALSE(possible);
  char byte;
  EXPECT_GT(0, client_.read_at(0, &byte, 1));
  EXPECT_EQ("content", fetch("A"));
}

TEST_F(Random_Access, refuses_a_file_that_is_missing_or_has_another_size)
{
  bool possible = false;
  EXPECT_FALSE(client_.open_random("A", possible));
  EXPECT_NE(std::string(), client_.error());
  store("A", "content");
  dir_.write("pool/source/A", "conten");
  EXPECT_FALSE(client_.open_random("A", possible));
  EXPECT_NE(std::string::npos, std::string(client_.error()).find("is damaged")) << client_.error();
}

TEST_F(Random_Access, reports_a_failing_read)
{
  store("A", "content");
  bool possible = false;
  ASSERT_TRUE(client_.open_random("A", possible));
  Fault_File_System faults;
  faults.fail("pread", 1, EIO);
  EXPECT_NE(std::string::npos, read_at(0, 7).find("cannot read")) << client_.error();
  EXPECT_EQ("content", read_at(0, 7));
}

class Taken_Name : public Storage_Fixture
{
protected:
  bool create(Client_IO_Ex& client, const std::string& name)
  {
    options_.overwrite = false;
    return client.connect(location_, options_) && client.open(name, Client_IO_Ex::MODE_WRITE, 0, 0);
  }
};

TEST_F(Taken_Name, is_told_from_other_failures)
{
  store("A", "content");
  Client_IO_Ex client;
  EXPECT_FALSE(create(client, "A"));
  EXPECT_TRUE(client.name_taken());
  EXPECT_FALSE(create(client, "A/B"));
  EXPECT_FALSE(client.name_taken());
  {
    Fault_File_System faults;
    faults.fail("open", 1, EACCES);
    EXPECT_FALSE(create(client, "B"));
    EXPECT_FALSE(client.name_taken());
  }
  ASSERT_TRUE(create(client, "B"));
  Client_IO_Ex second;
  EXPECT_FALSE(create(second, "B"));
  EXPECT_TRUE(second.name_taken());
  EXPECT_TRUE(client.write("b", 1) && client.close());
  EXPECT_EQ("content", fetch("A"));
}

// The other writer finishes between the look at the name and the lock.
TEST_F(Taken_Name, is_found_when_the_file_was_finished_meanwhile)
{
  class Late_File_System : public kestrel::File_System
  {
  public:
    Late_File_System(const std::string& path, const std::string& partial) : path_(path), partial_(partial) {}
    int open(const char* path, int flags, mode_t mode) override
    {
      if (path == partial_ && !done_) {
        done_ = true;
        Client_IO_Ex other;
        Client_IO_Base::Options options;
        options.storage_path = path_.substr(0, path_.rfind("/source"));
        EXPECT_TRUE(other.connect(options.storage_path + "/source", options));
        EXPECT_TRUE(other.open("A", Client_IO_Ex::MODE_WRITE, 0, 0) && other.write("first", 5) &&
                    other.close());
      }
      return File_System::open(path, flags, mode);
    }

  private:
    const std::string path_, partial_;
    bool done_ = false;
    kestrel::Scoped_File_System scope_{*this};
  };
  Client_IO_Ex client;
  {
    Late_File_System late(stored_path("A"), partial_path("A"));
    EXPECT_FALSE(create(client, "A"));
  }
  EXPECT_TRUE(client.name_taken());
  EXPECT_EQ("first", fetch("A"));
  EXPECT_EQ((std::vector<std::string>{"A", "A.meta"}), names_in(location_));
}

TEST_F(Taken_Name, is_free_again_after_a_discarded_file)
{
  Client_IO_Ex client;
  ASSERT_TRUE(create(client, "A"));
  ASSERT_TRUE(client.write("half", 4));
  EXPECT_TRUE(client.discard());
  EXPECT_EQ(std::vector<std::string>{}, names_in(location_));
  EXPECT_TRUE(client.close()) << "nothing is open";
  EXPECT_FALSE(kestrel_test::exists(stored_path("A")));
  ASSERT_TRUE(create(client, "A")) << client.error();
  EXPECT_TRUE(client.write("whole", 5) && client.close());
  EXPECT_EQ("whole", fetch("A"));
}
