// Must not compile: the C++ library of macOS 11 has no text of a floating-point number.
#include <charconv>

char* shortest(double value, char* begin, char* end);
char* shortest(double value, char* begin, char* end) { return std::to_chars(begin, end, value).ptr; }
