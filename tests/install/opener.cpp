// A program that knows nothing of the library: it opens one that uses it, runs it, and closes it while the process and
// its threads live on.
#include <dlfcn.h>

#include <cstdio>
#include <thread>

namespace {

int runFrom(const char* path) {
  void* opened = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (opened == nullptr) {
    std::fprintf(stderr, "%s\n", ::dlerror());
    return 1;
  }
  const auto run = reinterpret_cast<int (*)()>(::dlsym(opened, "runProgram"));
  const int faults = run == nullptr ? 1 : run();
  ::dlclose(opened);
  return faults;
}

}  // namespace

int main(int, char** arguments) {
  int faults = 0;
  std::thread([&] { faults = runFrom(arguments[1]); }).join();  // the thread ends after the library was closed
  return faults == 0 ? 0 : 1;
}
