#include "os/posix/fs/RandomName.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>

#include "os/posix/fs/Errors.h"

namespace kes::fs {

std::string randomName(const std::string& name, std::size_t most, const std::string& path) {
  constexpr char characters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char random[8];
  PathErrors::check(KES_HERE, ::getentropy(random, sizeof random), path);
  std::size_t kept = std::min(name.size(), most - sizeof random - 2);
  // Half a character in UTF-8 is no name on every file system.
  while (kept > 0 && kept < name.size() && (name[kept] & 0xC0) == 0x80) --kept;
  std::string result = '.' + name.substr(0, kept) + '.';
  for (const unsigned char byte : random) result += characters[byte % (sizeof characters - 1)];
  return result;
}

}  // namespace kes::fs
