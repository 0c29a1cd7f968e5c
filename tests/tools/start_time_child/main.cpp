// Reserves COUNT start times beside other processes and prints one a line: start_time_child COUNT. The tree
// is named by KESTREL_ROOT.
#include "jobs/start_time.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
  for (int left = argc > 1 ? std::atoi(argv[1]) : 0; left > 0; --left)
    std::printf("%lld\n", static_cast<long long>(kestrel::reserve_start_time()));
  return 0;
}
