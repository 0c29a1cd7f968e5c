#include "storage/back_end.h"

#include "storage/client_io.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>

namespace
{
/// What a far server would hold.
struct Far_Files {
  std::map<std::string, std::string> data;
  std::map<std::string, std::string> side;
  std::string location;
  std::string key;
};

class Far_Writer : public kestrel::Stored_File_Writer
{
public:
  Far_Writer(Far_Files& files, const std::string& name) : files_(files), name_(name) {}
  bool write(const void* data, unsigned n, std::string&) override
  {
    bytes_.append(static_cast<const char*>(data), n);
    return true;
  }
  bool commit(const std::string& side_file, std::string&) override
  {
    files_.side[name_] = side_file;
    files_.data[name_] = bytes_;
    return true;
  }

private:
  Far_Files& files_;
  const std::string name_;
  std::string bytes_;
};

class Far_Reader : public kestrel::Stored_File_Reader
{
public:
  Far_Reader(Far_Files& files, const std::string& name)
      : data_(files.data[name]), side_(files.side[name]), path_("far/" + name)
  {
  }
  const std::string& side_file() const override { return side_; }
  uint64_t size() const override { return data_.size(); }
  const std::string& path() const override { return path_; }
  int read(void* data, unsigned n, std::string&) override
  {
    n = static_cast<unsigned>(std::min<size_t>(n, data_.size() - done_));
    std::memcpy(data, data_.data() + done_, n);
    done_ += n;
    return static_cast<int>(n);
  }

private:
  const std::string data_;
  const std::string side_;
  const std::string path_;
  size_t done_ = 0;
};

class Far_Back_End : public kestrel::Storage_Back_End
{
public:
  explicit Far_Back_End(Far_Files& files) : files_(files) {}
  bool connect(const std::string& location, const Client_IO_Base::Options& options,
               std::string& error) override
  {
    files_.location = location;
    const std::string* key = options.extra_option("X-Access-Key");
    files_.key = key == nullptr ? "" : *key;
    error = "the key is wrong";
    return files_.key == "right";
  }
  std::unique_ptr<kestrel::Stored_File_Writer> create(const std::string& name, bool, std::string&) override
  {
    return std::make_unique<Far_Writer>(files_, name);
  }
  std::unique_ptr<kestrel::Stored_File_Reader> open(const std::string& name, std::string&) override
  {
    return std::make_unique<Far_Reader>(files_, name);
  }
  bool remove(const std::string& name, std::string&) override
  {
    files_.side.erase(name);
    return files_.data.erase(name) == 1;
  }

private:
  Far_Files& files_;
};

class Back_End_Test : public testing::Test
{
protected:
  Back_End_Test()
  {
    kestrel::register_storage_back_end("far", [this] { return std::make_unique<Far_Back_End>(files_); });
    options_.back_end = "far";
    options_.compression_method = COMPRESSION_ZSTD;
  }
  ~Back_End_Test() override { kestrel::register_storage_back_end("far", nullptr); }

  Far_Files files_;
  Client_IO_Base::Options options_;
};

TEST_F(Back_End_Test, serves_clients_whose_pool_names_it)
{
  ASSERT_TRUE(options_.set_extra_option("X-Access-Key", "right"));
  Client_IO_Ex client;
  ASSERT_TRUE(client.connect("/anything/source", options_)) << client.error();
  EXPECT_EQ("/anything/source", files_.location);
  ASSERT_TRUE(client.open("f", 2, 0, 0));
  ASSERT_TRUE(client.write("content", 7));
  ASSERT_TRUE(client.close());
  EXPECT_EQ(client.storage_size(), files_.data["f"].size());
  ASSERT_TRUE(client.open("f", 1, 0, 0));
  char got[8];
  EXPECT_EQ(7, client.read(got, 8));
  EXPECT_EQ(0, std::memcmp("content", got, 7));
  EXPECT_TRUE(client.close());
  EXPECT_TRUE(client.remove("f"));
  EXPECT_TRUE(files_.data.empty());
}

TEST_F(Back_End_Test, may_refuse_a_connection)
{
  Client_IO_Ex client;
  EXPECT_FALSE(client.connect("/anything/source", options_));
  EXPECT_STREQ("the key is wrong", client.error());
  EXPECT_FALSE(client.open("f", 2, 0, 0));
}

TEST_F(Back_End_Test, is_unknown_once_forgotten)
{
  kestrel::register_storage_back_end("far", nullptr);
  Client_IO_Ex client;
  EXPECT_FALSE(client.connect("/anything/source", options_));
  EXPECT_NE(std::string::npos, std::string(client.error()).find("no storage back end named \"far\""))
      << client.error();
}
} // namespace
