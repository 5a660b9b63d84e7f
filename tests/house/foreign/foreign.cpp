// A program of somebody else: it knows the installed package and nothing of this repository.
#include <cerrno>
#include <iostream>
#include <string>

#include "kespal/error/FsError.h"

int main() {
  try {
    kes::raiseAt(KES_HERE, kes::NoSuchFileError("/nowhere", ENOENT));
  } catch (const kes::FsError& error) {
    std::cout << error.what() << '\n';
    // Named below the top folder of this project, wherever that lies on the machine that builds it.
    return error.path() == "/nowhere" && error.file() == std::string("foreign") ? 0 : 1;
  }
}
