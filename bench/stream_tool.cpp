// Takes brcmd's place in an installation: writes a backup stream of any size without a database behind it, to see what
// a backup job needs for a stream that no test machine's disk holds.
// Reads: BENCH_STREAM_MIB, the size of the stream. Not for restores. It is copied into the installation's bin folder and
// so needs no library of ours.

#include "bench/page_data.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <unistd.h>

namespace
{
// Longer than zstd looks back at low levels, so that the repetition does not make the data compress better; small, since
// the largest process of a job counts as its memory.
const unsigned PAGES = 4 * 1024 * 1024 / bench::PAGE_BYTES;
const unsigned PIECE_PAGES = 16;

int complain(const std::string& what)
{
  std::fprintf(stderr, "brcmd: ERROR, %s: %s\n", what.c_str(), std::strerror(errno));
  return 1;
}

std::string value_of(int argc, char** argv, const char* option)
{
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], option) == 0)
      return argv[i + 1];
  return {};
}

std::string own_path()
{
  char path[4096];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

bool write_all(int fd, const char* data, size_t bytes)
{
  while (bytes > 0) {
    const ssize_t count = ::write(fd, data, bytes);
    if (count <= 0)
      return false;
    data += count;
    bytes -= static_cast<size_t>(count);
  }
  return true;
}

bool write_stream(int fd, const std::string& info, uint64_t pages)
{
  std::mt19937 random(42);
  std::string page;
  std::string data;
  data.reserve(size_t(PAGES) * bench::PAGE_BYTES);
  for (unsigned i = 0; i < PAGES; ++i) {
    bench::fill_page(page, random);
    data += page;
  }
  if (!write_all(fd, info.data(), info.size()))
    return false;
  for (uint64_t done = 0; done < pages; done += PIECE_PAGES) {
    const size_t bytes = std::min<uint64_t>(PIECE_PAGES, pages - done) * bench::PAGE_BYTES;
    if (!write_all(fd, &data[done % PAGES * bench::PAGE_BYTES], bytes))
      return false;
  }
  return true;
}

bool write_chain(const std::string& path, const std::string& instance)
{
  const std::string id = std::to_string(std::time(nullptr)) + "-" + std::to_string(::getpid());
  std::ofstream file(path, std::ios::trunc);
  for (const char* const which : {"lastfullbackup", "lastbackup"})
    file << instance << "_" << which << "id=" << id << "\n"
         << instance << "_" << which << "lsn=" << std::time(nullptr) << "\n"
         << instance << "_" << which << "scn=" << std::time(nullptr) << "\n";
  file.close();
  return !file.fail();
}
} // namespace

int main(int argc, char** argv)
{
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::puts("brcmd 2.5.6 (build 2.5.6x20230817132129) for Linux x86_64");
    return 0;
  }
  const char* const mib = std::getenv("BENCH_STREAM_MIB");
  const std::string own = own_path();
  if (!mib || own.empty() || value_of(argc, argv, "-O") != "backup")
    return complain("only backups, and only with BENCH_STREAM_MIB");
  const uint64_t pages = std::strtoull(mib, nullptr, 10) * (1024 * 1024 / bench::PAGE_BYTES);
  const int fifo = ::open(value_of(argc, argv, "-f").c_str(), O_WRONLY | O_CLOEXEC);
  if (fifo < 0)
    return complain("cannot open the pipe");
  if (!write_stream(fifo, bench::info_block(own, pages * bench::PAGE_BYTES), pages))
    return complain("cannot write the pipe");
  ::close(fifo);
  const std::string home = own.substr(0, own.rfind("/bin/"));
  if (!write_chain(home + "/agent/lastlsn.dat", value_of(argc, argv, "-d")))
    return complain("cannot write lastlsn.dat");
  return 0;
}
