#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "kespal/error/Exception.h"

namespace kes::test {

/// What a call raised, in the words of the manual: compare it as a whole.
struct Raised {
  std::string type;  ///< the exact dynamic type, such as "kes::FsError"; empty when nothing was raised
  int errnum = 0;    ///< 0 where the error carries none
  std::string text;  ///< a file-system error's path, or the text of another one without errno
  std::string file;  ///< of the throw site
  std::string function;
  int line = 0;  ///< compared where both have one: only some sites fix theirs

  bool operator==(const Raised& other) const;
};

std::ostream& operator<<(std::ostream& stream, const Raised& raised);
/// With the line, for a test that fails.
void PrintTo(const Raised& raised, std::ostream* stream);

Raised raisedBy(const std::function<void()>& call);

inline Raised osError(int errnum, const char* file, int line, const char* function) {
  return {"kes::OsError", errnum, "", file, function, line};
}
inline Raised usageError(const char* text, const char* file, int line, const char* function) {
  return {"kes::UsageError", 0, text, file, function, line};
}
inline Raised runtimeError(const char* text, const char* file, int line, const char* function) {
  return {"kes::RuntimeError", 0, text, file, function, line};
}

/// The error that a call raises, which has to be of exactly this class.
template <typename Error, typename Call>
Error raisedAs(Call call) {
  try {
    call();
  } catch (const Exception& error) {
    EXPECT_EQ(typeid(error), typeid(Error)) << error.what();
    if (const auto* exact = dynamic_cast<const Error*>(&error)) return *exact;
  }
  throw std::runtime_error("not raised");
}

/// The text of the error that a call raises.
template <typename Call>
std::string errorOf(Call call) {
  try {
    call();
  } catch (const Exception& error) {
    return error.text();
  }
  return "nothing was raised";
}

}  // namespace kes::test
