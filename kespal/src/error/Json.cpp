#include "kespal/error/Json.h"

#include <cstddef>
#include <string_view>
#include <typeinfo>

#include "kespal/Helper.h"
#include "kespal/error/Code.h"
#include "kespal/error/FsError.h"

namespace kes {

namespace {

unsigned char byteAt(std::string_view text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

/// How many bytes a UTF-8 character takes that begins with this one; 0 where none does.
std::size_t lengthBehind(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

/// The second byte rules out longer forms than needed, surrogates, and what lies beyond the last character.
bool fits(unsigned char first, unsigned char second) {
  switch (first) {
    case 0xE0:
      return second >= 0xA0;
    case 0xED:
      return second < 0xA0;
    case 0xF0:
      return second >= 0x90;
    case 0xF4:
      return second < 0x90;
    default:
      return true;
  }
}

/// The length of the character that a text begins with; 0 where its first byte is a part of none.
std::size_t characterLength(std::string_view text) {
  const std::size_t length = lengthBehind(byteAt(text, 0));
  if (length > text.size()) return 0;
  for (std::size_t at = 1; at < length; ++at) {
    if ((byteAt(text, at) & 0xC0) != 0x80) return 0;
  }
  return length < 2 || fits(byteAt(text, 0), byteAt(text, 1)) ? length : 0;
}

void appendControl(std::string& line, unsigned char c) {
  switch (c) {
    case '\n':
      line += "\\n";
      break;
    case '\t':
      line += "\\t";
      break;
    default:
      line += "\\u00" + hex(&c, 1, 0, /*upper=*/false);
  }
}

void appendString(std::string& line, std::string_view text) {
  line += '"';
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    const unsigned char c = byteAt(text, 0);
    if (length == 0) {
      line += "\\ufffd";
    } else if (c < ' ' || c == 0x7F) {
      appendControl(line, c);
    } else {
      if (c == '"' || c == '\\') line += '\\';
      line += text.substr(0, length);
    }
    text.remove_prefix(length != 0 ? length : 1);
  }
  line += '"';
}

void appendMember(std::string& line, std::string_view key, std::string_view text) {
  line.append(",\"").append(key).append("\":");
  appendString(line, text);
}

void appendSite(std::string& line, const Exception& error) {
  if (error.file() == nullptr) return;
  line += ",\"site\":{\"file\":";
  appendString(line, error.file());
  line += ",\"line\":" + std::to_string(error.line());
  if (error.function() != nullptr) appendMember(line, "function", error.function());
  line += '}';
}

void appendFrames(std::string& line, const Backtrace& backtrace) {
  if (backtrace.empty()) return;
  line += ",\"frames\":";
  char separator = '[';
  for (auto frame = backtrace.rbegin(); frame != backtrace.rend(); ++frame, separator = ',') {
    line += separator;
    appendString(line, *frame);
  }
  line += ']';
}

/// All that there is to say of one error, without its cause and without the brace at the end.
void appendError(std::string& line, const Exception& error) {
  std::string type = typeid(error).name();
  demangle(type);
  line += "{\"type\":";
  appendString(line, type);
  appendMember(line, "text", error.text());
  if (const int number = errnum(error); number != 0) line += ",\"errno\":" + std::to_string(number);
  if (const auto* ofFile = dynamic_cast<const FsError*>(&error)) appendMember(line, "path", ofFile->path());
  appendSite(line, error);
  appendFrames(line, error.backtrace());
}

}  // namespace

std::string json(const Exception& error) {
  std::string line;
  std::size_t depth = 0;
  for (const Exception* each = &error; each != nullptr; each = each->next(), ++depth) {
    if (depth != 0) line += ",\"cause\":";
    appendError(line, *each);
  }
  return line.append(depth, '}');
}

}  // namespace kes
