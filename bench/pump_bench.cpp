// Measures the storage client with the loop that backup and restore jobs use. bench/run-pump.sh drives it and
// compares it with ordinary tools.
//
//   pump_bench write FIFO POOL NAME METHOD LEVEL WORKERS   the FIFO's bytes into a stored file
//   pump_bench read POOL NAME FIFO                         a stored file's bytes into the FIFO
//   pump_bench fill FILE MIB                               a file of database-like pages
//   pump_bench time COMMAND...                             runs a command, prints wall, user and system
//   seconds, peak KiB

#include "base/descriptor.h"
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
const unsigned PUMP_BYTES = 8192;
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

int write_stored(char** arguments)
{
  Client_IO_Base::Options options;
  options.storage_path = arguments[1];
  options.compression_method =
      compression_name_to_value(arguments[3], static_cast<unsigned>(std::strlen(arguments[3])));
  options.compression_level = std::atoi(arguments[4]);
  options.compression_workers = static_cast<unsigned>(std::atoi(arguments[5]));
  kestrel::Auto_Fd fifo(::open(arguments[0], O_RDONLY | O_CLOEXEC));
  if (fifo.get() < 0)
    return complain_errno("open the FIFO");
  Client_IO_Ex client;
  if (!client.connect(options.storage_path + SOURCE, options) || !client.open(arguments[2], 2, 0, 0))
    return complain("open", client.error());
  char buffer[PUMP_BYTES];
  ssize_t count;
  while ((count = read_write_trait::read(fifo.get(), buffer, sizeof buffer)) > 0) {
    if (!client.write(buffer, static_cast<unsigned>(count)))
      return complain("write", client.error());
  }
  if (count < 0)
    return complain_errno("read the FIFO");
  return client.close() ? 0 : complain("close", client.error());
}

int read_stored(char** arguments)
{
  Client_IO_Base::Options options;
  options.storage_path = arguments[0];
  kestrel::Auto_Fd fifo(::open(arguments[2], O_WRONLY | O_CLOEXEC));
  if (fifo.get() < 0)
    return complain_errno("open the FIFO");
  Client_IO_Ex client;
  if (!client.connect(options.storage_path + SOURCE, options) || !client.open(arguments[1], 1, 0, 0))
    return complain("open", client.error());
  char buffer[PUMP_BYTES];
  int count;
  while ((count = client.read(buffer, sizeof buffer)) > 0) {
    if (read_write_trait::write_n(fifo.get(), buffer, static_cast<size_t>(count)) != count)
      return complain_errno("write the FIFO");
  }
  return count == 0 ? 0 : complain("read", client.error());
}

// Pages with a random header, rows of numbers and words from a small vocabulary, and a zero-filled rest: they
// compress about as well as a database's pages do.
void fill_page(std::string& page, std::mt19937& random)
{
  static const char* const WORDS[] = {"account", "branch", "teller",   "history",
                                      "balance", "filler", "customer", "order"};
  page.clear();
  for (int i = 0; i < 6; ++i)
    page.append(std::to_string(random()));
  const size_t used = PUMP_BYTES - random() % 2048;
  while (page.size() < used) {
    page.append(WORDS[random() % 8]);
    page.append(std::to_string(random()));
    page.append(24, ' ');
  }
  page.resize(PUMP_BYTES, '\0');
}

int fill(char** arguments)
{
  kestrel::Auto_Fd file(::open(arguments[0], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (file.get() < 0)
    return complain_errno("create the data file");
  std::mt19937 random(42);
  std::string page;
  for (long left = std::atol(arguments[1]) * (1024 * 1024 / PUMP_BYTES); left > 0; --left) {
    fill_page(page, random);
    if (read_write_trait::write_n(file.get(), page.data(), page.size()) != static_cast<ssize_t>(page.size()))
      return complain_errno("write the data file");
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
    ::execvp(arguments[0], arguments);
    ::_exit(127);
  }
  int status = 0;
  rusage usage;
  if (::wait4(child, &status, 0, &usage) != child)
    return complain_errno("wait");
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - begin;
  std::printf("%.4f %.4f %.4f %ld\n", wall.count(), seconds(usage.ru_utime), seconds(usage.ru_stime),
              usage.ru_maxrss);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
} // namespace

int main(int argc, char** argv)
{
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "write" && argc == 8)
    return write_stored(argv + 2);
  if (mode == "read" && argc == 5)
    return read_stored(argv + 2);
  if (mode == "fill" && argc == 4)
    return fill(argv + 2);
  if (mode == "time" && argc > 2)
    return time_command(argv + 2);
  return complain(
      "usage",
      "write FIFO POOL NAME METHOD LEVEL WORKERS | read POOL NAME FIFO | fill FILE MIB | time COMMAND...");
}
