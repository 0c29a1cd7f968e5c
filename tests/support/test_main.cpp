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

int main(int argc, char** argv)
{
  ::setlocale(LC_ALL, "");
  ::signal(SIGPIPE, SIG_IGN);
  testing::InitGoogleMock(&argc, argv);
  testing::UnitTest::GetInstance()->listeners().Append(new Log_Watch);
  return RUN_ALL_TESTS();
}
