#include "oscar/instance_info.h"
#include "oscar/oscar_cmd_handler.h"
#include "support/corpus.h"
#include "support/fault_process_api.h"

#include <boost/algorithm/string.hpp>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

/// No command line makes discovery start anything but the isql of some home, or find an instance without it.
void discover(const std::string& command)
{
  kestrel_test::Fault_Process_Api api;
  api.fail_all(ENOENT);
  std::vector<Service_Info> services(1);
  services[0].cmd = command;
  std::map<std::string, Oscar_Instance_Info> found;
  oscar::add_instances(services, found);
  check(found.empty());
  for (const kestrel::Spawn_Request& request : api.requests())
    check(!request.argv.empty() && boost::ends_with(request.argv.back(), "--version"));
}

/// A login that is known never shows, whatever stands around it and whatever the password is.
void mask(const std::string& text)
{
  const std::string secret = "s3cr3t" + text.substr(0, text.find('\0')) + "t3rc3s";
  const Oscar_Cmd_Login login = {"user", secret.c_str()};
  const std::string isql = mask_oscar_cmd("isql -Uuser/" + secret + " -dDB1", false, login);
  check(isql == "isql -Uuser/*** -dDB1");
  const std::string brcmd = mask_oscar_cmd("brcmd -u user -p " + secret + " -P 1", true, login);
  check(brcmd == "brcmd -u user -p*** -P 1");
  for (const bool is_brcmd : {false, true}) {
    const std::string once = mask_oscar_cmd(text, is_brcmd);
    check(mask_oscar_cmd(once, is_brcmd) == once);
  }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const std::string text(reinterpret_cast<const char*>(data), size);
  discover(text);
  mask(text);
  return 0;
}
