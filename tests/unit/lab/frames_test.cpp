#include "lab/brcmd/image.h"
#include "lab/common/files.h"
#include "lab/common/text.h"
#include "support/temp_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>

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

} // namespace

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
