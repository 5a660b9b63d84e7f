// Holds our declarations of Foundation against the tool chain's Objective-C headers, and against what
// the public SDK documents. Compiles against a real SDK too.
#import <Foundation/Foundation.h>

#include <cstdint>
#include <type_traits>

using std::is_same_v;

static_assert(is_same_v<NSUInteger, unsigned long> && sizeof(NSUInteger) == 8 && sizeof(BOOL) == 1);

static_assert(is_same_v<std::underlying_type_t<decltype(NSLibraryDirectory)>, NSUInteger>);
static_assert(is_same_v<std::underlying_type_t<decltype(NSUserDomainMask)>, NSUInteger>);
static_assert(NSLibraryDirectory == 5 && NSDocumentDirectory == 9 && NSApplicationSupportDirectory == 14);
static_assert(NSUserDomainMask == 1 && NSLocalDomainMask == 2);

static_assert(is_same_v<decltype(NSTemporaryDirectory), NSString*()>);
static_assert(is_same_v<decltype(NSLog), void(NSString*, ...)>);

// Message sends are typed only inside a function; it is compiled, never called.
void messagesHaveTheirTypes(NSException* exception, NSString* text, NSArray* list);
void messagesHaveTheirTypes(NSException* exception, NSString* text, NSArray* list) {
  static_assert(is_same_v<decltype([text UTF8String]), const char*>);
  static_assert(is_same_v<decltype([NSString stringWithUTF8String:""]), NSString*>);
  static_assert(is_same_v<decltype([text description]), NSString*>);
  static_assert(is_same_v<decltype([list count]), NSUInteger>);
  static_assert(is_same_v<decltype([list lastObject]), id>);
  static_assert(is_same_v<decltype([exception name]), NSString*>);
  static_assert(is_same_v<decltype([exception reason]), NSString*>);
  static_assert(is_same_v<decltype([exception userInfo]), NSDictionary*>);
  NSArray* addresses = [exception callStackReturnAddresses];
  NSArray* symbols = [exception callStackSymbols];
  NSArray* found = NSSearchPathForDirectoriesInDomains(NSLibraryDirectory, NSUserDomainMask, YES);
  static_cast<void>(addresses), static_cast<void>(symbols), static_cast<void>(found);
}
