#include "kesos/strings.h"

#include <string.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace {

/// Copies `count` bytes, which must fit with their terminator.
char* copyTerminated(char* dst, const char* src, size_t count) {
  ::memcpy(dst, src, count);
  dst[count] = '\0';
  return dst;
}

/// The length of `dst`, or one more than `size` when it is longer than that.
size_t lengthUpTo(const char* dst, size_t size) { return ::strnlen(dst, size == SIZE_MAX ? size : size + 1); }

/// Appends the first `count` bytes to a text that does not fit in whole.
char* appendCut(char* dst, size_t size, size_t length, const char* src, size_t count) {
  ::memcpy(dst + length, src, count);
  dst[size - 1] = '\0';
  return dst;
}

template <typename Convert>
char* convertAll(char* s, Convert convert) {
  if (s == nullptr) return nullptr;
  for (char* c = s; *c != '\0'; ++c) *c = convert(*c);
  return s;
}

}  // namespace

char* strcpy_kes(char* dst, size_t size, const char* src) {
  if (dst == nullptr || src == nullptr) return nullptr;
  if (size == 0) return dst;
  return copyTerminated(dst, src, std::min(::strnlen(src, size), size - 1));
}

size_t strlen_kes(const char* s, size_t max) { return s == nullptr || max == 0 ? 0 : ::strnlen(s, max); }

char* strncpy_kes(char* dst, size_t size, const char* src, size_t n) {
  if (dst == nullptr || src == nullptr) return nullptr;
  if (n == SIZE_MAX || size == 0) return dst;
  if (n >= size) return strcpy_kes(dst, size, src);
  return copyTerminated(dst, src, ::strnlen(src, n));
}

char* strcat_kes(char* dst, size_t size, const char* src) {
  if (dst == nullptr || src == nullptr) return nullptr;
  if (size == 0) return dst;
  const size_t length = lengthUpTo(dst, size);
  if (length > size) return dst;
  const size_t room = size - length;
  const size_t added = ::strnlen(src, room);
  if (added == room) return appendCut(dst, size, length, src, room);
  copyTerminated(dst + length, src, added);
  return dst;
}

char* strncat_kes(char* dst, size_t size, const char* src, size_t n) {
  if (dst == nullptr || src == nullptr) return nullptr;
  if (size == 0 || n == 0) return dst;
  const size_t length = lengthUpTo(dst, size);
  if (length > size) return dst;
  const size_t room = size - length;
  const size_t whole = ::strnlen(src, room);  // whether it fits is a question of all of it, not of n bytes
  const size_t written = std::min(n, room);
  if (whole == room) return appendCut(dst, size, length, src, written);
  const size_t added = std::min(whole, written);
  ::memcpy(dst + length, src, added);
  ::memset(dst + length + added, 0, written - added);
  return dst;
}

int sprintf_kes(char* dst, size_t size, const char* fmt, ...) {
  if (size == 0) return 0;
  va_list arguments;
  va_start(arguments, fmt);
  const int length = ::vsnprintf(dst, dst == nullptr ? 0 : size, fmt, arguments);
  va_end(arguments);
  if (dst == nullptr) return length;
  dst[size - 1] = '\0';
  return length >= 0 ? length : static_cast<int>(::strlen(dst));
}

void strclear(char* s) {
  if (s != nullptr) *s = '\0';
}

char* strupr(char* s) {
  return convertAll(s, [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
}

char* strlwr(char* s) {
  return convertAll(s, [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
}
