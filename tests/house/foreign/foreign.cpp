// A program of somebody else: it knows the installed package and nothing of this repository.
#include <cerrno>
#include <iostream>

#include "kespal/error/FsError.h"

int main() {
  try {
    kes::raiseAt(KES_HERE, kes::NoSuchFileError("/nowhere", ENOENT));
  } catch (const kes::FsError& error) {
    std::cout << error.what() << '\n';
    return error.path() == "/nowhere" ? 0 : 1;
  }
}
