#include "kespal/fs/StandardPaths.h"

#import <Foundation/Foundation.h>

#include "kespal/NoCopy.h"
#include "kespal/error/StaticError.h"

namespace kes::fs {

namespace {

/// The objects that Foundation hands out live until their pool goes. Written without the compiler's own
/// pool block, which not every Objective-C++ compiler has.
struct Pool : NoCopy {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  ~Pool() { [pool release]; }
};

Path pathOf(NSString* text) {
  const char* bytes = text != nil ? [text UTF8String] : nullptr;
  return bytes != nullptr ? bytes : "";
}

Path lastOf(NSSearchPathDirectory directory, NSSearchPathDomainMask domain) {
  const Pool pool;
  NSArray* found = NSSearchPathForDirectoriesInDomains(directory, domain, YES);
  if ([found count] == 0) raiseAt(KES_HERE, RuntimeError("the system names no such directory"));
  return pathOf([found objectAtIndex:[found count] - 1]);
}

}  // namespace

Path StandardPaths::userDataDir() { return lastOf(NSApplicationSupportDirectory, NSUserDomainMask); }

Path StandardPaths::documentsDir() { return lastOf(NSDocumentDirectory, NSUserDomainMask); }

Path StandardPaths::userTempDir() {
  const Pool pool;
  return pathOf(NSTemporaryDirectory());
}

Path StandardPaths::userLogDir() { return lastOf(NSLibraryDirectory, NSUserDomainMask) + "Logs"; }

Path StandardPaths::logDir() { return lastOf(NSLibraryDirectory, NSLocalDomainMask) + "Logs"; }

}  // namespace kes::fs
