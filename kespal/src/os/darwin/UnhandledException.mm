#include "kespal/UnhandledException.h"

#import <Foundation/Foundation.h>

#include <exception>

#include "error/Report.h"
#include "os/darwin/ObjcGuard.h"

namespace kes {

namespace {

struct Pool {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  ~Pool() { [pool release]; }
};

void rethrow() { throw; }

void logDescription(NSString* format, id detail) {
  if (detail != nil) NSLog(format, [detail description]);
}

void logNSException(void* raw) {
  auto* const exception = static_cast<NSException*>(raw);
  NSLog(@"NSException:\n\nObject: %@\nReason: %@\n", [exception name], [exception reason]);
  logDescription(@"User info: %@", [exception userInfo]);
  logDescription(@"Return addresses: %@", [exception callStackReturnAddresses]);
  logDescription(@"Call stack: %@", [exception callStackSymbols]);
}

/// Never throws: this is the way to the end, which would be taken once more.
void logStack(const Exception& error) noexcept {
  try {
    NSLog(@"kes::Exception:\n%s", error.exStack().c_str());
  } catch (...) {
    NSLog(@"kes::Exception:\n%s", noMemoryLeft);
  }
}

}  // namespace

void kespal_unhandled_exception() {
  const Pool pool;
  NSLog(@">>> unhandled iOS exception occured <<<");
  // The program may end in the middle of unwinding, where nothing is caught that could be thrown again.
  if (!std::current_exception() && std::uncaught_exceptions() > 0) {
    NSLog(@"unknown exception type");
    return;
  }
  try {
    kesObjcGuard(rethrow, logNSException);
  } catch (const Exception& error) {
    logStack(error);
  } catch (const std::exception& error) {
    const char* const what = error.what();
    NSLog(@"std::exception:\n\n%s", what != nullptr ? what : "");
  } catch (...) {
    NSLog(@"unknown exception type");
  }
}

}  // namespace kes
