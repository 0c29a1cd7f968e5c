#include "support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <csignal>
#include <memory>

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

int main(int argc, char** argv)
{
  ::setlocale(LC_ALL, "");
  ::signal(SIGPIPE, SIG_IGN);
  testing::InitGoogleMock(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new Log_Watch);
  return RUN_ALL_TESTS();
}
