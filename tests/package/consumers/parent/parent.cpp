// A part of a project that has the libraries as another part of it.
#include <cerrno>
#include <iostream>
#include <string>

#include "kes/version.h"
#include "kesos/kesos.h"
#include "kespal/error/FsError.h"

int main() {
  try {
    kes::raiseAt(KES_HERE, kes::NoSuchFileError("/nowhere", ENOENT));
  } catch (const kes::FsError& error) {
    std::cout << error.what() << '\n';
    return error.file() == std::string("parent") && strlen_kes(KES_VERSION, 100) > 0 ? 0 : 1;
  }
}
