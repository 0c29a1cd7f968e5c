#include "agent/systemd_notify.h"

#include "base/descriptor.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace kestrel_test;
using kestrel::Heartbeats;
using kestrel::Service_Notifier;
using kestrel::Watchdog;

namespace
{
/// The receiving end, as a service manager has it.
class Manager_Socket
{
public:
  explicit Manager_Socket(const std::string& name)
      : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
  {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (name[0] == '@')
      address.sun_path[0] = '\0';
    else
      ++size;
    EXPECT_EQ(0, ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), size)) << std::strerror(errno);
  }
  /// The next message, "" when none waits.
  std::string next() const
  {
    char text[4096];
    const ssize_t size = ::recv(fd_.get(), text, sizeof text, 0);
    return size < 0 ? "" : std::string(text, static_cast<size_t>(size));
  }

private:
  kestrel::Auto_Fd fd_;
};

TEST(Service_Notifier, does_nothing_when_nobody_asked)
{
  const Scoped_Env none("NOTIFY_SOCKET", nullptr);
  const Service_Notifier notifier = Service_Notifier::from_environment();
  EXPECT_FALSE(notifier.active());
  EXPECT_EQ(0, notifier.feed_msec());
  EXPECT_TRUE(notifier.ready("up"));
  EXPECT_TRUE(notifier.watchdog());
}

TEST(Service_Notifier, sends_each_message_to_a_path)
{
  const Temp_Dir dir;
  const Manager_Socket manager(dir / "notify");
  const Service_Notifier notifier(dir / "notify", 0);
  EXPECT_TRUE(notifier.ready("connected to https://server:7480"));
  EXPECT_EQ("READY=1\nSTATUS=connected to https://server:7480", manager.next());
  EXPECT_TRUE(notifier.status("2 runs"));
  EXPECT_EQ("STATUS=2 runs", manager.next());
  EXPECT_TRUE(notifier.reloading());
  const std::string reload = manager.next();
  EXPECT_EQ(0u, reload.find("RELOADING=1\nMONOTONIC_USEC="));
  EXPECT_GT(std::stoull(reload.substr(reload.rfind('=') + 1)), 0u);
  EXPECT_TRUE(notifier.stopping("waiting for 1 run"));
  EXPECT_EQ("STOPPING=1\nSTATUS=waiting for 1 run", manager.next());
  EXPECT_TRUE(notifier.extend(60000));
  EXPECT_EQ("EXTEND_TIMEOUT_USEC=60000000", manager.next());
  EXPECT_TRUE(notifier.watchdog());
  EXPECT_EQ("WATCHDOG=1", manager.next());
  EXPECT_EQ("", manager.next());
}

TEST(Service_Notifier, keeps_a_status_on_one_line)
{
  const Temp_Dir dir;
  const Manager_Socket manager(dir / "notify");
  EXPECT_TRUE(Service_Notifier(dir / "notify", 0).status("one\nREADY=1"));
  EXPECT_EQ("STATUS=one READY=1", manager.next());
}

TEST(Service_Notifier, sends_to_an_abstract_name)
{
  const std::string name = "@kestrel-notify-test-" + std::to_string(::getpid());
  const Manager_Socket manager(name);
  EXPECT_TRUE(Service_Notifier(name, 0).watchdog());
  EXPECT_EQ("WATCHDOG=1", manager.next());
}

TEST(Service_Notifier, takes_its_variables_out_of_the_environment)
{
  const Scoped_Env socket("NOTIFY_SOCKET", "/run/notify");
  const Scoped_Env pid("WATCHDOG_PID", std::to_string(::getpid()));
  const Scoped_Env usec("WATCHDOG_USEC", "30000000");
  const Service_Notifier notifier = Service_Notifier::from_environment();
  EXPECT_TRUE(notifier.active());
  EXPECT_EQ(15000, notifier.feed_msec());
  for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"})
    EXPECT_EQ(nullptr, ::getenv(name)) << name;
}

TEST(Service_Notifier, leaves_a_watchdog_alone_that_is_not_its_own_or_makes_no_sense)
{
  const Scoped_Env socket("NOTIFY_SOCKET", "/run/notify");
  {
    const Scoped_Env pid("WATCHDOG_PID", std::to_string(::getpid() + 1));
    const Scoped_Env usec("WATCHDOG_USEC", "30000000");
    EXPECT_EQ(0, Service_Notifier::from_environment().feed_msec());
  }
  for (const char* text : {"", "0", "-1", "many", "99999999999999999999999"}) {
    const Scoped_Env usec("WATCHDOG_USEC", text);
    EXPECT_EQ(0, Service_Notifier::from_environment().feed_msec()) << text;
  }
  const Scoped_Env usec("WATCHDOG_USEC", "1");
  const Scoped_Env again("NOTIFY_SOCKET", "/run/notify");
  EXPECT_EQ(1, Service_Notifier::from_environment().feed_msec());
}

TEST(Service_Notifier, warns_once_when_nobody_listens_or_the_name_is_none)
{
  const Temp_Dir dir;
  for (const std::string& name : {dir / "nobody", std::string("relative"), std::string("@"), std::string(200, '/')}) {
    Log_Capture log;
    const Service_Notifier notifier(name, 0);
    EXPECT_FALSE(notifier.watchdog());
    EXPECT_FALSE(notifier.ready("up"));
    EXPECT_TRUE(log.expect(LM_WARNING, "The service manager cannot be told at " + name));
  }
}

TEST(Watchdog, feeds_until_a_loop_is_stuck_and_again_when_it_turns)
{
  Fake_Clock clock;
  Log_Capture log;
  const Temp_Dir dir;
  const Manager_Socket manager(dir / "notify");
  const Service_Notifier notifier(dir / "notify", 2000000);
  Heartbeats beats;
  const size_t loop = beats.add("scheduler", 1000);
  Watchdog watchdog(notifier, beats);
  EXPECT_TRUE(watchdog.feed());
  EXPECT_EQ("WATCHDOG=1", manager.next());
  clock.advance_msec(2000);
  EXPECT_FALSE(watchdog.feed());
  EXPECT_FALSE(watchdog.feed());
  EXPECT_EQ("", manager.next());
  EXPECT_EQ(1u, log.count("stuck: scheduler"));
  EXPECT_TRUE(log.expect(LM_ERROR, "stuck: scheduler"));
  beats.beat(loop);
  EXPECT_TRUE(watchdog.feed());
  EXPECT_EQ("WATCHDOG=1", manager.next());
}

TEST(Watchdog, makes_no_thread_when_nobody_watches)
{
  const Temp_Dir dir;
  const Manager_Socket manager(dir / "notify");
  const Service_Notifier notifier(dir / "notify", 0);
  const Heartbeats beats;
  Watchdog watchdog(notifier, beats);
  watchdog.start();
  watchdog.stop();
  EXPECT_EQ("", manager.next());
}
} // namespace
