// Opens libcorvane_services.so with dlopen, finds H6BA54F7D00 by its undecorated name, and asks
// it for the factory of every service id from 0 to 14.
//
//   entry_demo [path/to/libcorvane_services.so]
//
// The library's own log lines (an unhandled id is a grave one) go to stderr.
#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <typeinfo>

#include "core/CloudServiceId.h"
#include "core/RemoteFileSystemFactory.h"

namespace {

using Entry = RemoteFileSystemFactory* (*)(CloudServiceId, const std::string&);

std::string Demangled(const char* name) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> readable(
      abi::__cxa_demangle(name, nullptr, nullptr, &status), std::free);
  return status == 0 ? readable.get() : name;
}

}  // namespace

int main(int argc, char** argv) {
  const char* path = argc > 1 ? argv[1] : CORVANE_LIBRARY_PATH;
  void* library = dlopen(path, RTLD_NOW);
  if (!library) {
    std::fprintf(stderr, "dlopen failed: %s\n", dlerror());
    return 1;
  }
  auto entry = reinterpret_cast<Entry>(dlsym(library, "H6BA54F7D00"));
  if (!entry) {
    std::fprintf(stderr, "dlsym failed: %s\n", dlerror());
    return 1;
  }
  for (int id = 0; id <= 14; ++id) {
    std::fflush(stdout);
    // Deleted through the virtual destructor, which lives in the library.
    std::unique_ptr<RemoteFileSystemFactory> factory(
        entry(static_cast<CloudServiceId>(id), "/demo/root"));
    if (factory) {
      std::printf("%2d  %s\n", id, Demangled(typeid(*factory).name()).c_str());
    } else {
      std::printf("%2d  no factory\n", id);
    }
  }
  std::fflush(stdout);
  dlclose(library);
  return 0;
}
