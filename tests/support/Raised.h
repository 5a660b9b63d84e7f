#pragma once

#include <functional>
#include <ostream>
#include <string>

namespace kes::test {

/// What a call raised, in the words of the manual: compare it as a whole.
struct Raised {
  std::string type;  ///< the exact dynamic type, such as "kes::FsError"; empty when nothing was raised
  int errnum = 0;    ///< 0 where the error carries none
  std::string text;  ///< a file-system error's path, or the text of another one without errno
  std::string file;  ///< of the throw site
  std::string function;

  bool operator==(const Raised&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const Raised& raised);

Raised raisedBy(const std::function<void()>& call);

}  // namespace kes::test
