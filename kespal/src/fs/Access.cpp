#include "kespal/fs/Access.h"

#include <ostream>

namespace kes::fs {

namespace {

std::string idText(unsigned id) { return id == Access::Unchanged ? "-" : std::to_string(id); }

std::string modeText(unsigned mode) {
  std::string text = "rwxrwxrwx";
  for (unsigned bit = 0400, at = 0; bit != 0; bit >>= 1, ++at) {
    if ((mode & bit) == 0) text[at] = '-';
  }
  return text;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Access& access) {
  return stream << idText(access.owner()) + ':' + idText(access.group()) + ' ' + modeText(access.mode());
}

}  // namespace kes::fs
