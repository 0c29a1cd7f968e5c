#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace
{
/// Holds every test to a clean log, also those that make no Log_Capture of their own.
class Log_Watch : public testing::EmptyTestEventListener
{
public:
  void OnTestStart(const testing::TestInfo&) override { capture_.reset(new kestrel_test::Log_Capture); }
  void OnTestEnd(const testing::TestInfo&) override { capture_.reset(); }

private:
  std::unique_ptr<kestrel_test::Log_Capture> capture_;
};
} // namespace

#if defined(__SANITIZE_THREAD__)
/// Boost.Regex shares its matcher's memory blocks between threads through atomic operations inside its
/// library, which is not instrumented: the detector sees the blocks change hands but not why that is safe.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions()
{
  return "race:boost::re_detail_\n";
}
#endif

/// In place of the C library's, for the product and the libraries below it: no test cuts the power, and
/// thousands of waits for the disk are most of the time that the fault loops take. Failures of a sync are
/// made above, by Fault_File_System.
extern "C" int fsync(int fd)
{
  return ::fcntl(fd, F_GETFD) < 0 ? -1 : 0;
}
extern "C" int fdatasync(int fd)
{
  return ::fsync(fd);
}

int main(int argc, char** argv)
{
  ::setlocale(LC_ALL, "");
  ::signal(SIGPIPE, SIG_IGN);
  testing::InitGoogleMock(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new Log_Watch);
  return RUN_ALL_TESTS();
}
