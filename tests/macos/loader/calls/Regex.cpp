#include <regex.h>

#include <cstdint>
#include <vector>

#include "Calls.h"

namespace loader {

namespace {

struct MacRegex {
  int magic;
  std::size_t groups;
  const char* end;
  regex_t* host;
};
struct MacMatch {
  std::int64_t begin, end;
};
struct Flag {
  int mac, host;
};
constexpr Flag flags[] = {{0x1, REG_EXTENDED}, {0x2, REG_ICASE}, {0x4, REG_NOSUB}, {0x8, REG_NEWLINE}};

int compile(MacRegex* mac, const char* pattern, int macFlags) {
  int hostFlags = 0;
  for (const Flag& flag : flags) {
    if ((macFlags & flag.mac) != 0) hostFlags |= flag.host;
  }
  auto* const host = new regex_t;
  const int result = ::regcomp(host, pattern, hostFlags);
  *mac = {0, host->re_nsub, nullptr, host};
  return result;
}

int match(const MacRegex* mac, const char* text, std::size_t count, MacMatch* found, int hostFlags) {
  std::vector<regmatch_t> matches(count);
  const int result = ::regexec(mac->host, text, count, matches.data(), hostFlags);
  for (std::size_t at = 0; result == 0 && found != nullptr && at < count; ++at) {
    found[at] = {matches[at].rm_so, matches[at].rm_eo};
  }
  return result;
}

void release(MacRegex* mac) {
  ::regfree(mac->host);
  delete mac->host;
}

const Call calls[] = {{"regcomp", compile}, {"regexec", match}, {"regfree", release}};

}  // namespace

std::span<const Call> regexCalls() { return calls; }

}  // namespace loader
