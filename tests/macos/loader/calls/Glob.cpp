#include <glob.h>

#include <cstddef>
#include <iterator>

#include "Calls.h"

namespace loader {

namespace {

/// What programs may look at, and room where the host's own list is kept.
struct MacGlob {
  std::size_t count;
  int matches;
  std::size_t reserved;
  int flags;
  char** paths;
  int (*onError)(const char*, int);
  glob_t* host;
};

struct Flag {
  int mac, host;
};
constexpr Flag flags[] = {{0x4, GLOB_ERR},     {0x8, GLOB_MARK},        {0x10, GLOB_NOCHECK},
                          {0x20, GLOB_NOSORT}, {0x2000, GLOB_NOESCAPE}, {0x80, GLOB_BRACE},
                          {0x800, GLOB_TILDE}};
constexpr int macNoSpace = -1, macAborted = -2, macNoMatch = -3;

int find(const char* pattern, int macFlags, int (*onError)(const char*, int), MacGlob* mac) {
  int hostFlags = 0;
  for (const Flag& flag : flags) {
    if ((macFlags & flag.mac) != 0) hostFlags |= flag.host;
  }
  auto* const host = new glob_t{};
  const int result = ::glob(pattern, hostFlags, onError, host);
  *mac = {host->gl_pathc, static_cast<int>(host->gl_pathc), 0, macFlags, host->gl_pathv, onError, host};
  return result == GLOB_NOSPACE   ? macNoSpace
         : result == GLOB_ABORTED ? macAborted
         : result == GLOB_NOMATCH ? macNoMatch
                                  : result;
}

void release(MacGlob* mac) {
  if (mac->host == nullptr) return;
  ::globfree(mac->host);
  delete mac->host;
  *mac = {};
}

const Call calls[] = {{"glob", find}, {"globfree", release}};

}  // namespace

std::span<const Call> globCalls() { return calls; }

}  // namespace loader
