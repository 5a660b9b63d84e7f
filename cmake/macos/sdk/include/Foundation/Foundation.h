/* The part of Foundation that this project calls. The root class and the integer types come from the
   tool chain's Objective-C headers. */
#pragma once

#include <objc/NSObject.h>

@class NSArray<ObjectType>, NSDictionary<KeyType, ObjectType>;

@interface NSValue : NSObject
@end

@interface NSNumber : NSValue
@end

@interface NSString : NSObject
+ (instancetype)stringWithUTF8String:(const char*)text;
@property(readonly) const char* UTF8String;
@end

@interface NSArray<ObjectType> : NSObject
@property(readonly) NSUInteger count;
- (ObjectType)objectAtIndex:(NSUInteger)index;
@property(nonatomic, readonly) ObjectType lastObject;
@end

@interface NSDictionary<KeyType, ObjectType> : NSObject
+ (instancetype)dictionaryWithObject:(ObjectType)object forKey:(KeyType)key;
@end

typedef NSString* NSExceptionName;

/* Without the attribute the compiler would emit a type record of its own instead of importing
   the framework's, and no handler would match. */
__attribute__((objc_exception))
@interface NSException : NSObject
+ (NSException*)exceptionWithName:(NSExceptionName)name
                           reason:(NSString*)reason
                         userInfo:(NSDictionary*)userInfo;
- (void)raise;
@property(readonly, copy) NSExceptionName name;
@property(readonly, copy) NSString* reason;
@property(readonly, copy) NSDictionary* userInfo;
@property(readonly, copy) NSArray<NSNumber*>* callStackReturnAddresses;
@property(readonly, copy) NSArray<NSString*>* callStackSymbols;
@end

@interface NSAutoreleasePool : NSObject
@end

typedef enum NSSearchPathDirectory : NSUInteger {
  NSLibraryDirectory = 5,
  NSDocumentDirectory = 9,
  NSApplicationSupportDirectory = 14,
} NSSearchPathDirectory;

typedef enum NSSearchPathDomainMask : NSUInteger {
  NSUserDomainMask = 1,
  NSLocalDomainMask = 2,
} NSSearchPathDomainMask;

#ifdef __cplusplus
extern "C" {
#endif

NSArray<NSString*>* NSSearchPathForDirectoriesInDomains(NSSearchPathDirectory directory,
                                                        NSSearchPathDomainMask domains, BOOL expandTilde);
NSString* NSTemporaryDirectory(void);
void NSLog(NSString* format, ...) __attribute__((format(__NSString__, 1, 2)));

#ifdef __cplusplus
}
#endif
