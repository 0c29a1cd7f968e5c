/// The export tool of the stand-in. Only its version can be asked so far; every other use fails clearly.
#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
  if (argc == 2 && (std::strcmp(argv[1], "-v") == 0 || std::strcmp(argv[1], "--version") == 0)) {
    std::puts("osrexp 2.5.6x20230817132129");
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::puts("usage: osrexp -v");
    return 0;
  }
  std::fputs("osrexp: ERROR, this installation cannot export data\n", stderr);
  return 1;
}
