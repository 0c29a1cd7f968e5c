#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
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

namespace
{
/// A program that passes says nothing of a test that it left out. test.sh collects what is written here, and tells it
/// at its end.
class Left_Out_Notes : public testing::EmptyTestEventListener
{
public:
  void OnTestEnd(const testing::TestInfo& test) override
  {
    const char* const path = ::getenv("KESTREL_LEFT_OUT");
    if (!path || !test.result()->Skipped())
      return;
    std::ofstream notes(path, std::ios::app);
    notes << test.test_suite_name() << '.' << test.name() << ':';
    for (int i = 0; i < test.result()->total_part_count(); ++i)
      if (test.result()->GetTestPartResult(i).skipped())
        notes << ' ' << test.result()->GetTestPartResult(i).message();
    notes << std::endl;
  }
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
  testing::UnitTest::GetInstance()->listeners().Append(new Left_Out_Notes);
  return RUN_ALL_TESTS();
}
