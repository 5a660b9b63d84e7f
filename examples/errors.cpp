// Raising errors, passing them on with a cause, keeping them, and printing what happened.
//
// Run it with KES_BACKTRACE set to see the calls that led to each error.
#include <sys/stat.h>

#include <cerrno>
#include <iostream>
#include <memory>

#include "kespal/ScopeGuard.h"
#include "kespal/error/FsError.h"
#include "kespal/error/StaticError.h"

namespace {

/// A failed system call becomes an error with its errno; the site says where.
long sizeOf(const char* path) {
  struct stat status {};
  if (::stat(path, &status) != 0) {
    if (errno == ENOENT) kes::raiseAt(KES_HERE, kes::NoSuchFileError(path, errno));
    kes::raiseAt(KES_HERE, kes::FsError(path, errno));
  }
  return static_cast<long>(status.st_size);
}

/// What went wrong below is the cause of what goes wrong here.
long sizeOfSettings() {
  try {
    return sizeOf("/no/such/settings");
  } catch (const kes::Exception& cause) {
    kes::RuntimeError error("settings cannot be read");
    error.setNext(cause);
    kes::raiseAt(KES_HERE, error);
  }
}

/// Text that is known only at run time is streamed into the error.
void checkSize(long size) {
  if (size <= 1024) return;
  kes::DynError error("settings are too large: ", "Settings");
  error.stream() << size << " bytes";
  kes::raiseAt(KES_HERE, error);
}

/// Leaving a scope must not raise: a guard reports the error on standard error instead.
struct Door {
  void close() { kes::raiseAt(KES_HERE, kes::UsageError("the door is closed already")); }
};

}  // namespace

int main() {
  kes::Exception::init();  // a program with a runtime object need not do this itself

  try {
    sizeOf("/no/such/file");
  } catch (const kes::NoSuchFileError& error) {
    std::cout << "One condition, by type: " << error.path() << '\n';
  }

  std::unique_ptr<kes::Exception> kept;
  try {
    checkSize(sizeOfSettings());
  } catch (const kes::Exception& error) {
    kept.reset(error.clone());  // outlives the catch block, with its type and its causes
  }
  std::cout << "\nIn short:\n" << kept->textList();
  std::cout << "\nIn full:" << kept->exStack() << std::flush;

  try {
    checkSize(4096);
  } catch (const kes::Exception& error) {
    std::cout << '\n' << error.what() << "\n\n" << std::flush;
  }

  Door door;
  { const kes::ObjScopeGuard0<Door, void (Door::*)()> guard(door, &Door::close); }
  std::cout << "Still here.\n";
}
