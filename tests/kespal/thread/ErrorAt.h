#pragma once

#include <cstring>
#include <ostream>
#include <string>
#include <typeinfo>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"

namespace kes::test {

/// What an operation raised, in a form that compares and prints: type, text or number, and site.
struct Raised {
  std::string type;
  std::string what;
  std::string file;
  int line = 0;
  std::string function;
  bool operator==(const Raised&) const = default;
};

inline void PrintTo(const Raised& raised, std::ostream* os) {
  *os << raised.type << " \"" << raised.what << "\" at " << raised.file << ':' << raised.line << ' '
      << raised.function;
}

inline std::string text(const char* text) { return text != nullptr ? text : ""; }

/// Runs an operation and tells what it raised; an empty type when it raised nothing.
template <typename Operation>
Raised raisedBy(Operation operation) {
  try {
    operation();
    return {};
  } catch (const Exception& error) {
    std::string type = "Exception", what = error.text();
    if (typeid(error) == typeid(OsError)) {
      type = "OsError", what = std::to_string(static_cast<const OsError&>(error).errnum());
    } else if (typeid(error) == typeid(NoSuchProcessError)) {
      type = "NoSuchProcessError", what = std::to_string(static_cast<const OsError&>(error).errnum());
    } else if (typeid(error) == typeid(UsageError)) {
      type = "UsageError";
    } else if (typeid(error) == typeid(RuntimeError)) {
      type = "RuntimeError";
    }
    return {type, what, text(error.file()), error.line(), text(error.function())};
  }
}

/// The same without the line, for errors that fix none; but there is one.
inline Raised withoutLine(Raised raised) {
  EXPECT_GT(raised.line, 0);
  raised.line = 0;
  return raised;
}

inline Raised osError(int errnum, const char* file, int line, const char* function) {
  return {"OsError", std::to_string(errnum), file, line, function};
}
inline Raised usageError(const char* what, const char* file, int line, const char* function) {
  return {"UsageError", what, file, line, function};
}
inline Raised runtimeError(const char* what, const char* file, int line, const char* function) {
  return {"RuntimeError", what, file, line, function};
}

}  // namespace kes::test
