// A log of errors that a program can read: one JSON object in each line, with causes and sites, and with the
// calls that led to each where KES_BACKTRACE is set.
//
//   log_errors FILE...     tells the size of each file, and logs on standard error what stands in the way
#include <iostream>
#include <system_error>

#include "kespal/error/Code.h"
#include "kespal/error/Json.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Info.h"

namespace {

void tellSize(const char* path) {
  try {
    const auto info = kes::fs::Info::get(path, /*follow=*/true);
    std::cout << path << ": " << info.size() << " bytes" << std::endl;
  } catch (const kes::Exception& cause) {
    kes::RuntimeError error("the size of a file is not known");
    error.setNext(cause);
    kes::raiseAt(KES_HERE, error);
  }
}

/// What need not worry anybody: the file is gone, by whatever class that was raised.
bool isHarmless(const kes::Exception& error) {
  return error.next() != nullptr && kes::errorCode(*error.next()) == std::errc::no_such_file_or_directory;
}

}  // namespace

int main(int argc, char** argv) {
  kes::Exception::init();
  int status = 0;
  for (int number = 1; number < argc; ++number) {
    try {
      tellSize(argv[number]);
    } catch (const kes::Exception& error) {
      std::cerr << kes::json(error) << std::endl;
      if (!isHarmless(error)) status = 1;
    }
  }
  return status;
}
