#include "base/descriptor.h"
#include "oscar/stream_info.h"
#include "support/clocks.h"
#include "unit/physical/pump_fakes.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

// The same bytes as everything that comes from a tool or from storage: a stream from brcmd, a stored file
// that is fed to it, and the info text.
namespace
{
using namespace kestrel_test;

void back_up(const std::string& stream)
{
  const kestrel::Auto_Fd file(::memfd_create("stream", MFD_CLOEXEC));
  if (read_write_trait::write_n(file.get(), stream.data(), stream.size()) != ssize_t(stream.size()) ||
      ::lseek(file.get(), 0, SEEK_SET) != 0)
    ::abort();
  Fake_Pump_Host host;
  Memory_Sink sink;
  oscar::Pumped_Stream pumped;
  oscar::Stream_Backup_Pump pump(host, sink, oscar::stream_backup_set_size);
  // Whatever was stored is the beginning of the stream, and a success stored all of it.
  const bool ok = pump.pump(file.get(), "fifo", pumped);
  if (stream.compare(0, sink.stored.size(), sink.stored) != 0 || (ok && sink.stored != stream) ||
      (ok && pumped.bytes != stream.size()))
    ::abort();
}

void restore(const std::string& stored)
{
  const kestrel::Auto_Fd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  Fake_Clock clock;
  Fake_Pump_Host host;
  Memory_Source source(stored);
  oscar::Stream_Progress progress(stored.size());
  oscar::Stream_Restore_Pump pump(host, source, progress);
  if (pump.pump(nowhere.get(), oscar::Stream_Restore_Pump::Expected()) && progress.done() != stored.size())
    ::abort();
}
/// The rule for the info text, written out: PATH=NUMBER on a line, counted when the path is a file.
uint64_t expected_size(const std::string& text)
{
  uint64_t sum = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    struct stat status;
    if (equals == std::string::npos || line.find('\0') < equals ||
        ::stat(line.substr(0, equals).c_str(), &status) != 0 || !S_ISREG(status.st_mode))
      continue;
    uint64_t size = 0;
    for (size_t at = equals + 1 + (line[equals + 1] == '+'); at < line.size(); ++at) {
      if (line[at] < '0' || line[at] > '9')
        break;
      const uint64_t digit = static_cast<uint64_t>(line[at] - '0');
      size = size > (UINT64_MAX - digit) / 10 ? UINT64_MAX : size * 10 + digit;
    }
    sum = size > UINT64_MAX - sum ? UINT64_MAX : sum + size;
  }
  return sum;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string input(reinterpret_cast<const char*>(data), size);
  back_up(input);
  restore(input);
  if (oscar::stream_backup_set_size(input.data(), static_cast<unsigned>(input.size())) !=
      expected_size(input))
    ::abort();
  return 0;
}
