// Measures the pumps of backup and restore jobs together with the storage client, without the job around them.
// bench/run-pump.sh drives it and compares it with ordinary tools. The pause in which a restoring tool prepares itself
// is left out.
//
//   pump_bench write FIFO POOL NAME METHOD LEVEL WORKERS   the FIFO's bytes into a stored file
//   pump_bench read POOL NAME FIFO BYTES                   a stored file's bytes into the FIFO
//   pump_bench fill FILE MIB                               a stream as a backup tool writes it: info block and pages
//   pump_bench time FILE COMMAND...                        runs a command and adds a line to FILE: wall, user and
//                                                          system seconds, peak KiB, of it and its children

#include "base/clock.h"
#include "base/descriptor.h"
#include "bench/page_data.h"
#include "oscar/stream_fifo.h"
#include "oscar/stream_info.h"
#include "oscar/stream_pump.h"
#include "oscar/stream_storage.h"
#include "storage/client_io.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
const char SOURCE[] = "/pump-bench";

int complain(const char* what, const std::string& reason)
{
  std::fprintf(stderr, "pump_bench: %s: %s\n", what, reason.c_str());
  return 1;
}

int complain_errno(const char* what)
{
  return complain(what, std::strerror(errno));
}

class No_Job : public oscar::Stream_Pump_Host
{
public:
  bool canceled() const override { return false; }
  void bytes_moved() override {}
  void progress(int, uint64_t, uint64_t) override {}
  void alert(int) override {}
  std::string definition_id() const override { return "bench"; }
};

class No_Pause : public kestrel::Clock
{
public:
  void sleep_msec(int64_t) override {}
};

int write_stored(char** arguments)
{
  Client_IO_Base::Options options;
  options.storage_path = arguments[1];
  options.compression_method =
      compression_name_to_value(arguments[3], static_cast<unsigned>(std::strlen(arguments[3])));
  options.compression_level = std::atoi(arguments[4]);
  options.compression_workers = static_cast<unsigned>(std::atoi(arguments[5]));
  oscar::Stream_Fifo pipe(arguments[0]);
  const kestrel::Auto_Fd fifo(pipe.open_reader());
  if (fifo.get() < 0)
    return complain_errno("open the FIFO");
  Client_IO_Ex client;
  if (!client.connect(options.storage_path + SOURCE, options) || !client.open(arguments[2], 2, 0, 0))
    return complain("open", client.error());
  No_Job host;
  oscar::Stored_File_Sink sink(client, arguments[2]);
  oscar::Stream_Backup_Pump pump(host, sink, [](const char* text, unsigned length) {
    return oscar::stream_backup_set_size(text, length);
  });
  oscar::Pumped_Stream pumped;
  if (!pump.pump(fifo.get(), arguments[0], pumped))
    return complain("pump", client.error());
  return client.close() ? 0 : complain("close", client.error());
}

int read_stored(char** arguments)
{
  Client_IO_Base::Options options;
  options.storage_path = arguments[0];
  oscar::Stream_Fifo pipe(arguments[2]);
  const kestrel::Auto_Fd fifo(pipe.open_writer());
  if (fifo.get() < 0)
    return complain_errno("open the FIFO");
  Client_IO_Ex client;
  if (!client.connect(options.storage_path + SOURCE, options) || !client.open(arguments[1], 1, 0, 0))
    return complain("open", client.error());
  No_Pause no_pause;
  const kestrel::Scoped_Clock without_pause(no_pause);
  No_Job host;
  oscar::Stored_File_Source source(client, arguments[1]);
  oscar::Stream_Progress progress(std::strtoull(arguments[3], nullptr, 10));
  return oscar::Stream_Restore_Pump(host, source, progress).pump(fifo.get(), {}) ? 0 : complain("pump", client.error());
}

int fill(char** arguments)
{
  kestrel::Auto_Fd file(::open(arguments[0], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (file.get() < 0)
    return complain_errno("create the data file");
  const uint64_t pages = std::strtoull(arguments[1], nullptr, 10) * (1024 * 1024 / bench::PAGE_BYTES);
  // The pump counts only the sizes of files that exist; this one will do.
  std::string page = bench::info_block(arguments[0], pages * bench::PAGE_BYTES);
  std::mt19937 random(42);
  for (uint64_t done = 0; done <= pages; ++done) {
    if (read_write_trait::write_n(file.get(), page.data(), page.size()) != static_cast<ssize_t>(page.size()))
      return complain_errno("write the data file");
    bench::fill_page(page, random);
  }
  return 0;
}

double seconds(const timeval& time)
{
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

int time_command(char** arguments)
{
  const auto begin = std::chrono::steady_clock::now();
  const pid_t child = ::fork();
  if (child < 0)
    return complain_errno("fork");
  if (child == 0) {
    ::execvp(arguments[1], arguments + 1);
    ::_exit(127);
  }
  int status = 0;
  rusage usage;
  if (::wait4(child, &status, 0, &usage) != child)
    return complain_errno("wait");
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
  std::FILE* const file = std::fopen(arguments[0], "a");
  if (!file)
    return complain_errno("open the file of times");
  std::fprintf(file, "%.4f %.4f %.4f %ld\n", wall.count(), seconds(usage.ru_utime), seconds(usage.ru_stime),
               usage.ru_maxrss);
  if (std::fclose(file) != 0)
    return complain_errno("write the file of times");
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
} // namespace

int main(int argc, char** argv)
{
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "write" && argc == 8)
    return write_stored(argv + 2);
  if (mode == "read" && argc == 6)
    return read_stored(argv + 2);
  if (mode == "fill" && argc == 4)
    return fill(argv + 2);
  if (mode == "time" && argc > 3)
    return time_command(argv + 2);
  return complain(
      "usage",
      "write FIFO POOL NAME METHOD LEVEL WORKERS | read POOL NAME FIFO BYTES | fill FILE MIB | time FILE COMMAND...");
}
