#import <Foundation/Foundation.h>

#include <cstdarg>
#include <iostream>
#include <string>

// The system log, as what is logged alone: the platform's also writes the date and the process.
void NSLog(NSString* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  NSString* text = [[NSString alloc] initWithFormat:format arguments:arguments];
  va_end(arguments);
  std::cerr << std::string([text UTF8String]) + '\n' << std::flush;
  [text release];
}
