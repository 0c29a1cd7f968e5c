#include "given_interfaces.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>

namespace
{
/// What getifaddrs() hands out: linked from the first entry, owned as a whole.
struct Given_List {
  explicit Given_List(const std::vector<kestrel_test::Given_Interfaces::Entry>& given)
      : names(given.size()), addresses(given.size()), entries(given.size())
  {
    for (size_t i = 0; i < given.size(); ++i) {
      names[i] = given[i].name;
      addresses[i].sin_family = AF_INET;
      EXPECT_EQ(1, ::inet_pton(AF_INET, given[i].address.c_str(), &addresses[i].sin_addr));
      entries[i].ifa_name = &names[i][0];
      entries[i].ifa_addr = reinterpret_cast<sockaddr*>(&addresses[i]);
      entries[i].ifa_flags = IFF_UP;
      entries[i].ifa_next = i + 1 < given.size() ? &entries[i + 1] : nullptr;
    }
  }

  std::vector<std::string> names;
  std::vector<sockaddr_in> addresses;
  std::vector<ifaddrs> entries;
};

std::vector<kestrel_test::Given_Interfaces::Entry> given;
std::unique_ptr<Given_List> list;
unsigned lists_taken = 0;

template <class Function> Function* of_the_system(Function*, const char* name)
{
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}
} // namespace

namespace kestrel_test
{
Given_Interfaces::Given_Interfaces(const std::vector<Entry>& entries)
{
  given = entries;
  list = std::make_unique<Given_List>(given);
  lists_taken = 0;
}

Given_Interfaces::~Given_Interfaces()
{
  list.reset();
  given.clear();
}

unsigned Given_Interfaces::taken() const
{
  return lists_taken;
}
} // namespace kestrel_test

extern "C" int getifaddrs(ifaddrs** result) noexcept
{
  if (!list)
    return of_the_system(&::getifaddrs, "getifaddrs")(result);
  ++lists_taken;
  *result = list->entries.data();
  return 0;
}

extern "C" void freeifaddrs(ifaddrs* taken) noexcept
{
  if (!list || taken != list->entries.data())
    of_the_system(&::freeifaddrs, "freeifaddrs")(taken);
}

extern "C" unsigned if_nametoindex(const char* name) noexcept
{
  for (const kestrel_test::Given_Interfaces::Entry& entry : given)
    if (entry.name == name)
      return entry.index;
  return of_the_system(&::if_nametoindex, "if_nametoindex")(name);
}
