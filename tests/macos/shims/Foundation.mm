#import <Foundation/Foundation.h>

#include <cstdarg>
#include <cstdio>

// The system log, as what is logged alone: the platform's also writes the date and the process.
void NSLog(NSString* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  NSString* text = [[NSString alloc] initWithFormat:format arguments:arguments];
  va_end(arguments);
  std::fprintf(stderr, "%s\n", [text UTF8String]);
  [text release];
}
