#include "support/Raised.h"

#include <typeinfo>

#include "kespal/Helper.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"

namespace kes::test {

namespace {

std::string typeName(const std::exception& error) {
  std::string name = typeid(error).name();
  demangle(name);
  return name;
}

Raised describe(const Exception& error) {
  Raised raised{
      typeName(error), 0, "", error.file() ? error.file() : "", error.function() ? error.function() : "",
      error.line()};
  if (const auto* fsError = dynamic_cast<const FsError*>(&error)) {
    raised.errnum = fsError->osError().errnum();
    raised.text = fsError->path();
  } else if (const auto* osError = dynamic_cast<const OsError*>(&error)) {
    raised.errnum = osError->errnum();
  } else {
    raised.text = error.text();
  }
  return raised;
}

}  // namespace

bool Raised::operator==(const Raised& other) const {
  return type == other.type && errnum == other.errnum && text == other.text && file == other.file &&
         function == other.function && (line == other.line || line == 0 || other.line == 0);
}

std::ostream& operator<<(std::ostream& stream, const Raised& raised) {
  if (raised.type.empty()) return stream << "nothing raised";
  return stream << raised.type << ' ' << raised.errnum << " \"" << raised.text << "\" at " << raised.file
                << " (" << raised.function << ')';
}

void PrintTo(const Raised& raised, std::ostream* stream) { *stream << raised << " in line " << raised.line; }

Raised raisedBy(const std::function<void()>& call) {
  try {
    call();
  } catch (const Exception& error) {
    return describe(error);
  } catch (const std::exception& error) {
    return {typeName(error), 0, error.what(), "", "", 0};
  }
  return {};
}

}  // namespace kes::test
