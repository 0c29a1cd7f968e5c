#include "lab/brcmd/image.h"
#include "lab/common/files.h"
#include "lab/common/text.h"
#include "support/temp_dir.h"

#include <atomic>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

using namespace oscar_lab;
using kestrel_test::Temp_Dir;

namespace
{

/// A small stream with a frame of every type.
std::string sample_stream(const Temp_Dir& dir)
{
  const std::string path = dir / "stream";
  {
    const Descriptor file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    Image_Writer image(file.get());
    image.info("level incr\n/x.dbf=12\n");
    image.properties(Frame_Type::head, {{"format", "1"}, {"level", "incr"}});
    image.tablespace(1, "16385", "@/T.dbf.d");
    image.directory(1, "PG_15", 0700);
    Frame frame;
    frame.type = Frame_Type::file;
    frame.path = "conf";
    image.file(frame, "some text");
    frame.type = Frame_Type::pages;
    frame.mode = 3;
    frame.file_bytes = 8192 * 5;
    image.piece(frame, std::string(64, 'p'));
    frame.type = Frame_Type::unchanged;
    image.piece(frame, "");
    frame.type = Frame_Type::log;
    frame.path = "000000010000000000000001";
    frame.file_bytes = 16 * 1024 * 1024;
    image.piece(frame, "log bytes");
    image.properties(Frame_Type::end, {{"lsn", "5"}});
    image.flush();
  }
  return read_file(path);
}

/// What a reader makes of a stream, frame by frame; throws like the reader.
std::string read_stream(const Temp_Dir& dir, const std::string& bytes)
{
  dir.write("input", bytes);
  const Descriptor file = open_file(dir / "input", O_RDONLY);
  Image_Reader image(file.get());
  std::string seen = image.info();
  for (;;) {
    const Frame frame = image.next();
    seen += static_cast<char>(frame.type) + std::to_string(frame.root) + "," + std::to_string(frame.mode) +
            "," + std::to_string(frame.file_bytes) + "," + frame.path + "," + image.text(frame) + ";";
    if (frame.type == Frame_Type::end)
      break;
  }
  image.require_end();
  return seen;
}

/// Files of sizes that fill the writer's pieces in every way, with bytes that tell their place.
void write_files(int fd, const std::string& path)
{
  Image_Writer image(fd);
  image.info("x");
  const Descriptor file = open_file(path, O_RDONLY);
  for (const std::uint64_t size : {3000000U, 262144U, 1U, 1310720U, 4000001U}) {
    Frame frame;
    frame.type = Frame_Type::file;
    frame.path = "f";
    frame.payload_bytes = frame.file_bytes = size;
    if (::lseek(file.get(), 0, SEEK_SET) != 0)
      fail_errno("seek");
    image.file(frame, file.get());
  }
  image.flush();
}

/// Reads in pieces of the given size, and only when the pipe is full or the writer is done.
std::string read_lagging(int fd, std::size_t piece_bytes, const std::atomic<bool>& done)
{
  std::string all;
  std::string piece(piece_bytes, '\0');
  for (;;) {
    const int capacity = ::fcntl(fd, F_GETPIPE_SZ);
    int waiting = 0;
    int before = -1;
    // What fills a slot only in part keeps the pipe from ever holding all its bytes.
    while (::ioctl(fd, FIONREAD, &waiting) == 0 && waiting + 8192 < capacity && !done && before != waiting) {
      before = waiting;
      std::this_thread::yield();
    }
    const ssize_t count = ::read(fd, &piece[0], piece.size());
    if (count <= 0)
      return all;
    all.append(piece, 0, static_cast<std::size_t>(count));
  }
}

void expect_same_through_pipe(const Temp_Dir& dir, int pipe_bytes, std::size_t piece_bytes)
{
  SCOPED_TRACE(std::to_string(pipe_bytes) + " " + std::to_string(piece_bytes));
  int ends[2];
  ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
  const Descriptor read_end(ends[0]);
  Descriptor write_end(ends[1]);
  // Only root may make pipes of more than a megabyte; the tests hold with the smaller one as well.
  EXPECT_TRUE(::fcntl(ends[0], F_SETPIPE_SZ, pipe_bytes) > 0 || errno == EPERM);
  std::atomic<bool> done(false);
  std::thread writer([&] {
    write_files(write_end.get(), dir / "data");
    done = true;
    write_end.reset();
  });
  const std::string got = read_lagging(read_end.get(), piece_bytes, done);
  writer.join();
  EXPECT_TRUE(got == read_file(dir / "expected"));
}

} // namespace

TEST(Backup_Frames, pass_through_pipes_of_every_size_unchanged)
{
  const Temp_Dir dir;
  std::string data;
  for (unsigned i = 0; data.size() < 4000001; ++i)
    data += std::to_string(i) + " ";
  dir.write("data", data);
  {
    const Descriptor file = open_file(dir / "expected", O_WRONLY | O_CREAT, 0600);
    write_files(file.get(), dir / "data");
  }
  for (const int pipe_bytes : {4096, 65536, 1048576, 4194304})
    for (const std::size_t piece_bytes : {777U, 8192U, 1048576U})
      expect_same_through_pipe(dir, pipe_bytes, piece_bytes);
}

TEST(Backup_Frames, come_back_as_written)
{
  const Temp_Dir dir;
  const std::string seen = read_stream(dir, sample_stream(dir));
  EXPECT_NE(seen.find("T1,0,5,@/T.dbf.d,16385;"), std::string::npos);
  EXPECT_NE(seen.find("D1,448,0,PG_15,;"), std::string::npos);
  EXPECT_NE(seen.find("conf,some text;"), std::string::npos);
  EXPECT_NE(seen.find("P0,3,40960,conf," + std::string(64, 'p')), std::string::npos);
  EXPECT_NE(seen.find("U0,3,40960,conf,;"), std::string::npos);
  EXPECT_NE(seen.find("W0,3,16777216,000000010000000000000001,log bytes;"), std::string::npos);
}

TEST(Backup_Frames, are_refused_when_any_bit_behind_the_info_block_differs)
{
  const Temp_Dir dir;
  const std::string good = sample_stream(dir);
  const std::size_t info = 512 + std::string("level incr\n/x.dbf=12\n").size();
  for (std::size_t place = info; place < good.size(); ++place) {
    std::string bad = good;
    bad[place] = static_cast<char>(bad[place] ^ (1 << (place % 8)));
    EXPECT_THROW(read_stream(dir, bad), Failure) << "byte " << place;
  }
}

TEST(Backup_Frames, are_refused_when_cut_anywhere_or_followed_by_more)
{
  const Temp_Dir dir;
  const std::string good = sample_stream(dir);
  for (std::size_t length = 0; length < good.size(); length += 3)
    EXPECT_THROW(read_stream(dir, good.substr(0, length)), Failure) << length << " bytes";
  EXPECT_THROW(read_stream(dir, good.substr(0, good.size() - 1)), Failure);
  EXPECT_THROW(read_stream(dir, good + "x"), Failure);
}
