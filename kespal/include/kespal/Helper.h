#pragma once  // since 0.1

#include <cstddef>
#include <string>
#include <vector>

#include "kespal/Export.h"

// All of these may be called by any thread and throw std::bad_alloc and nothing else; a text that was to be
// changed is then as it was.
KES_EXPORT_BEGIN

namespace kes {

/// The bytes of `data` as hexadecimal digits, two each, `separator` between two bytes unless it is 0.
/// Empty for no bytes; "<null>" for a null pointer with a size.
std::string hex(const void* data, std::size_t size, char separator, bool upper);

/// The bytes that a hexadecimal text stands for, digits of either case; colons, blanks, tabs and newlines
/// between them are skipped. Empty when the number of digits is odd or a pair is no hexadecimal number.
std::basic_string<unsigned char> from_hex(const std::string& text);

/// Replaces a mangled symbol name by its readable form; any other text stays as it is, and for want of memory
/// this one, too.
void demangle(std::string& name);

namespace helper {

/// Replaces every occurrence of any single character of `chars` by `replacement`; resumes behind what was
/// inserted. Returns the number of replacements. Linear in the length of the text.
std::size_t replace_chars(std::string& text, const std::string& chars, const std::string& replacement);

/// Replaces every occurrence of `pattern`, left to right, resuming behind what was inserted. Returns the
/// number of replacements; an empty pattern occurs nowhere. Linear in the length of the text.
std::size_t replace(std::string& text, const std::string& pattern, const std::string& replacement);

/// Cuts `text` at each delimiter into `parts`, whose earlier content is dropped, while its memory is used
/// again. Without `keepEmpty` empty pieces are not stored; with `strip` white space is taken from both ends
/// of every piece first. When std::bad_alloc is thrown, `parts` holds some of both contents.
void split(const std::string& text, char delimiter, std::vector<std::string>& parts, bool strip,
           bool keepEmpty);

/// Removes from both ends every character equal to `c`; with `c` 0, white space as the C library's
/// isspace sees it in the current locale.
void makeStripped(std::string& text, char c);

}  // namespace helper
}  // namespace kes

KES_EXPORT_END
