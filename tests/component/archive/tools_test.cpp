#include "archive/archive_writer.h"
#include "archive/mtf.h"

#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Archives must stay readable without this product, so the ordinary tools have to agree with it.

namespace
{
using kestrel_test::read_file;
using kestrel_test::Temp_Dir;

const char minor_id[] = "minor";

class Archive_Tools : public testing::TestWithParam<Compression_Method>
{
protected:
  Archive_Tools()
  {
    pool_.pool_id = "P";
    pool_.storage_path = dir_.make_dir("pool");
    kestrel::set_pool_finder([this](const std::string&, Pool_Info& info, std::string&) {
      info = pool_;
      return true;
    });
  }
  ~Archive_Tools() override { kestrel::set_pool_finder(nullptr); }

  bool store(const std::vector<std::string>& sources, unsigned long long last, unsigned long long& seq)
  {
    MTF::Metadata metadata;
    MTF_Backup backup(nullptr, metadata, nullptr);
    for (const std::string& source : sources)
      backup.add_source(source);
    backup.minor_resource_id(minor_id);
    backup.seq(last);
    backup.compression(compression_to_mtf(GetParam()));
    const bool done = backup.backup(pool_);
    seq = backup.seq();
    return done;
  }
  std::string stored(unsigned long long seq) const
  {
    return pool_.storage_path + "/" + minor_id + "/" + kestrel::archive_file_name(seq);
  }
  /// The command that writes the plain archive to its output.
  std::string plain(unsigned long long seq) const
  {
    static const char* const commands[] = {"cat ", "gzip -dc < ", "lz4 -qdc < ", "zstd -qdc < "};
    return commands[GetParam()] + stored(seq);
  }
  std::string output_of(const std::string& command)
  {
    EXPECT_EQ(0, std::system((command + " > " + (dir_ / "output") + " 2>&1").c_str())) << command;
    return read_file(dir_ / "output");
  }

  kestrel_test::Log_Capture log_;
  Temp_Dir dir_;
  Pool_Info pool_;
};

INSTANTIATE_TEST_SUITE_P(All, Archive_Tools,
                         testing::Values(COMPRESSION_NONE, COMPRESSION_ZLIB, COMPRESSION_LZ4,
                                         COMPRESSION_ZSTD),
                         [](const auto& info) { return std::string(compression_value_to_name(info.param)); });
} // namespace

TEST_P(Archive_Tools, list_and_unpack_an_archive)
{
  const std::string long_name = "S_DB/" + std::string(200, 'n');
  const std::vector<std::pair<std::string, std::string>> files = {
      {"S_DB/a.dump", std::string(500000, 'a')},
      {"S_DB/empty.dump", ""},
      {"S_\xe6\x95\xb0\xe6\x8d\xae/\xe8\xa1\xa8 1.dump", "table"},
      {long_name, "long"}};
  std::vector<std::string> sources;
  for (const auto& [name, content] : files)
    sources.push_back(dir_.write("dump/" + name, content, 0640));
  unsigned long long seq = 0;
  ASSERT_TRUE(store(sources, 0, seq));

  EXPECT_EQ(".kestrel/metadata.json\nS_DB/a.dump\nS_DB/empty.dump\n" + files[2].first + "\n" + long_name +
                "\n.kestrel/index.json\n.kestrel/tail\n",
            output_of(plain(seq) + " | tar --quoting-style=literal -tf -"));
  const std::string unpacked = dir_.make_dir("unpacked");
  EXPECT_EQ("", output_of(plain(seq) + " | tar -C " + unpacked + " --exclude=.kestrel -xf -"));
  for (const auto& [name, content] : files)
    EXPECT_EQ(content, read_file(unpacked + "/" + name)) << name;
  struct stat status;
  ASSERT_EQ(0, ::stat((unpacked + "/S_DB/a.dump").c_str(), &status));
  EXPECT_EQ(0640u, status.st_mode & 0777);
}

// tar seeks over the bytes of the file, which are a hole here.
TEST(Archive_Tools_Test, list_an_archive_of_a_file_beyond_eight_gibibytes)
{
  const uint64_t size = (uint64_t(20) << 30) + 512;
  Temp_Dir dir;
  std::string head;
  kestrel::Archive_Writer writer([&](const char* data, unsigned n) {
    head.append(data, n);
    return true;
  });
  kestrel::Archive_Record record;
  record.files = {{"S_DB/large.dump", "/dump/S_DB/large.dump", size}};
  ASSERT_TRUE(writer.begin(record) && writer.begin_file(0640, 0)) << writer.error();
  const std::string tar = dir.write("large.tar", head);
  const off_t whole = static_cast<off_t>(head.size() + size + 1024);
  if (::truncate(tar.c_str(), whole) != 0) {
    ASSERT_EQ(EFBIG, errno) << std::strerror(errno);
    GTEST_SKIP() << "the file system has no files of this size";
  }
  ASSERT_EQ(0, std::system(("tar -tvf " + tar + " > " + (dir / "output") + " 2>&1").c_str()));
  const std::string listed = read_file(dir / "output");
  EXPECT_NE(std::string::npos, listed.find(" " + std::to_string(size) + " ")) << listed;
}

// Each process stores its own content several times; no archive may be lost or replaced.
TEST_P(Archive_Tools, processes_at_once_never_take_the_same_number)
{
  const int processes = 3, rounds = 5;
  std::vector<pid_t> children;
  for (int i = 0; i < processes; ++i) {
    const std::string source = dir_.write("dump/S_DB/" + std::to_string(i) + ".dump",
                                          std::string(100000, static_cast<char>('0' + i)));
    const pid_t pid = ::fork();
    if (pid == 0) {
      bool done = true;
      unsigned long long seq = 0;
      for (int round = 0; round < rounds; ++round)
        done = store({source}, 0, seq) && done;
      ::_exit(done ? 0 : 1);
    }
    ASSERT_GT(pid, 0);
    children.push_back(pid);
  }
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
  }
  std::vector<int> found(processes);
  for (unsigned long long seq = 1; seq <= processes * rounds; ++seq) {
    MTF_Restore restore(nullptr, nullptr);
    restore.pool_uuid("P");
    restore.backup_minor_resource_id(minor_id);
    restore.seq(seq);
    ASSERT_TRUE(restore.verify()) << restore.error();
    ASSERT_EQ(1u, restore.members().size());
    ++found[static_cast<size_t>(restore.members()[0].name[5] - '0')];
  }
  EXPECT_EQ(std::vector<int>(processes, rounds), found);
}
