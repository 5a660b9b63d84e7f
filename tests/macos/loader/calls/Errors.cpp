#include <cerrno>
#include <cstddef>

#include "Calls.h"

extern "C" int __xpg_strerror_r(int, char*, std::size_t);

namespace loader {

namespace {

struct Pair {
  int host, mac;
};

// Up to ERANGE (34) the numbers agree but for one.
constexpr Pair pairs[] = {
    {EAGAIN, 35},       {EDEADLK, 11},      {ENAMETOOLONG, 63},  {ENOLCK, 77},          {ENOSYS, 78},
    {ENOTEMPTY, 66},    {ELOOP, 62},        {ENOMSG, 91},        {EIDRM, 90},           {EOVERFLOW, 84},
    {EILSEQ, 92},       {ENOTSOCK, 38},     {EMSGSIZE, 40},      {EPROTONOSUPPORT, 43}, {ENOTSUP, 45},
    {EAFNOSUPPORT, 47}, {EADDRINUSE, 48},   {EADDRNOTAVAIL, 49}, {ECONNABORTED, 53},    {ECONNRESET, 54},
    {ENOBUFS, 55},      {EISCONN, 56},      {ENOTCONN, 57},      {ETIMEDOUT, 60},       {ECONNREFUSED, 61},
    {EALREADY, 37},     {EINPROGRESS, 36},  {ESTALE, 70},        {EDQUOT, 69},          {ECANCELED, 89},
    {EOPNOTSUPP, 102},  {EPROTO, 100},      {ENODATA, 96},       {EBADMSG, 94},         {ENOPROTOOPT, 42},
    {EPROTOTYPE, 41},   {EHOSTUNREACH, 65}, {ENETUNREACH, 51},   {EDESTADDRREQ, 39},
};

/// What the program sees as errno. A host call that fails leaves its number in the host's errno, which is
/// translated when the program asks; in between the host's holds a number that no call sets.
thread_local int macErrno = 0;
constexpr int translated = -1;

int* error() {
  if (errno != translated) macErrno = macError(errno);
  errno = translated;
  return &macErrno;
}

int errorText(int number, char* buffer, std::size_t size) {
  return macError(__xpg_strerror_r(hostError(number), buffer, size));
}

const Call calls[] = {{"__error", error}, {"strerror_r", errorText}};

}  // namespace

int macError(int number) {
  for (const Pair& pair : pairs) {
    if (pair.host == number) return pair.mac;
  }
  return number;
}

int hostError(int number) {
  for (const Pair& pair : pairs) {
    if (pair.mac == number) return pair.host;
  }
  return number;
}

std::span<const Call> errorCalls() { return calls; }

}  // namespace loader
