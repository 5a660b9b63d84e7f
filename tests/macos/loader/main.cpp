// Runs a Mach-O program on Linux, for tests: loader [-l LIBRARY]... PROGRAM [ARGUMENT...]
//
// The program's own code, its C++ library and its unwinder are the ones that a Mac would run. What it calls
// in the system is answered by this system: by the same function where both agree, else by one of calls/,
// and a call that neither knows ends the program with its name and the exit code 127. There is no
// Objective-C.
//
// Built for x86_64 it runs programs for x86_64, built for arm64 those for arm64. What differs between these
// is in the folders of their names; the call conventions of both systems agree on x86_64, while on arm64 the
// program passes variable arguments in its own way (Variadic.h), and its long double is a double.
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <memory>
#include <string_view>

#include "Calls.h"

namespace loader {

Program program;

namespace {

void* definition(const std::string& name) {
  for (const Image* image : program.images) {
    if (void* const address = image->symbol(name)) return address;
  }
  return nullptr;
}

/// The same as a linker's option --wrap: where an image has a __wrap_NAME of its own, that is what its calls
/// of NAME get, and __real_NAME is the system's NAME.
void* wrapped(const Image& image, const std::string& name) {
  constexpr std::string_view real = "__real_";
  return name.starts_with(real) ? systemSymbol(name.substr(real.size())) : image.symbol("__wrap_" + name);
}

}  // namespace

Image* load(const std::string& path) {
  auto image = std::make_unique<Image>(path);
  image->bind(
      [&](const std::string& name) {
        if (void* const test = wrapped(*image, name)) return test;
        void* const before = definition(name);
        return before != nullptr ? before : systemSymbol(name);
      },
      [&](const std::string& name) {
        void* const before = definition(name);
        return before != nullptr ? before : image->symbol(name);
      });
  program.images.push_back(image.release());
  return program.images.back();
}

namespace {

int run(int argc, char** argv) {
  constexpr std::size_t mostImages = 64;
  program.images.reserve(mostImages);  // so that who reads the list meanwhile is not disturbed
  int next = 1;
  for (; next + 1 < argc && std::string_view(argv[next]) == "-l"; next += 2) load(argv[next + 1]);
  if (next >= argc) {
    std::fputs("usage: loader [-l LIBRARY]... PROGRAM [ARGUMENT...]\n", stderr);
    return 2;
  }
  program.loader.assign(argv, argv + next);
  program.argc = argc - next;
  program.argv = argv + next;
  load(argv[next]);
  for (const Image* image : program.images) image->runInitFunctions(program.argc, program.argv);
  using Main = int (*)(int, char**, char**);
  return reinterpret_cast<Main>(program.images.back()->entry())(program.argc, program.argv, environ);
}

}  // namespace

}  // namespace loader

int main(int argc, char** argv) {
  try {
    return loader::run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "loader: %s\n", error.what());
    return 127;
  }
}
