// tqble: command-line tool for the TQBle SDK.
#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "demo") == 0) {
    std::puts("tqble demo: the scripted session against the virtual charging post is not built yet.");
    return 0;
  }
  std::fprintf(stderr, "usage: tqble demo\n");
  return 2;
}
