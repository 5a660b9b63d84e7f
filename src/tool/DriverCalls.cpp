#include "DriverCalls.h"

#include <cstdint>
#include <cstdio>

#include "Console.h"
#include "State.h"
#include "client/UserClient.h"

namespace {

namespace client = kes::client;

bool openUserClient(CONNECTION_INFO& info, unsigned long long type) {
  kern_return_t result = client::openService(info.service, info.connect);
  if (result != KERN_SUCCESS) {
    Print("IOServiceOpen failed ret=0x%08x\n", static_cast<unsigned>(result));
    return false;
  }
  result = client::takeRole(info.connect, type);
  if (result != KERN_SUCCESS) {
    std::fprintf(stderr, "kKesLbUserClientOpen returned 0x%08x.\n\n", static_cast<unsigned>(result));
    return false;
  }
  return true;
}

}  // namespace

bool OpenConnection(CONNECTION_INFO& info, unsigned long long type) {
  info = {};
  info.service = client::findService();
  if (info.service == 0) {
    std::fputs("IOServiceGetMatchingService didn't find a matching driver\n", stderr);
    return false;
  }
  Print("Found a device of class %s.\n", client::serviceClass);
  if (!openUserClient(info, type)) {
    CloseConnection(info);
    return false;
  }
  Print("connection open, type =%lld\n", static_cast<long long>(type));
  return true;
}

void CloseConnection(CONNECTION_INFO& info) {
  if (info.connect != 0) ::IOServiceClose(info.connect);
  info.connect = 0;
  if (info.service != 0) ::IOObjectRelease(info.service);
  info.service = 0;
}

void SetDebugLevels(unsigned int connect) {
  const client::SetDebugLevelsRecord record{.driver = dbgLvl.driver, .ppp = dbgLvl.ppp, .oid = dbgLvl.oid};
  const kern_return_t result = client::setLevels(connect, record);
  if (result != KERN_SUCCESS) {
    // This wording, that of another call but for the colon, is what support knows.
    std::fprintf(stderr, "GetTrace failed ret=0x%08x.\n\n", static_cast<unsigned>(result));
    return;
  }
  Print("set debug levels: driver=%d, ppp=%d, oid=%d\n", dbgLvl.driver, dbgLvl.ppp, dbgLvl.oid);
}

kern_return_t CallGetTrace(unsigned int connect, char* buf, std::size_t& count) {
  return client::getTrace(connect, buf, count);
}

kern_return_t CallGetPacket(unsigned int connect, unsigned char* buf, std::size_t& count) {
  return client::getPacket(connect, buf, count);
}

void ReportGetTrace(kern_return_t result) {
  std::fprintf(stderr, "GetTrace failed: ret=0x%08x.\n\n", static_cast<unsigned>(result));
}

void ReportGetPacket(kern_return_t result) {
  std::fprintf(stderr, "GetPacket failed: ret=0x%08x.\n\n", static_cast<unsigned>(result));
}

void ReportPacket(std::size_t length) {
  std::fprintf(stderr, "GetPacket ok len =%ld\n", static_cast<long>(length));
}

unsigned int GetTrace(unsigned int connect, char* buf, unsigned int size) {
  std::size_t count = size;
  const kern_return_t result = CallGetTrace(connect, buf, count);
  if (result != KERN_SUCCESS) {
    ReportGetTrace(result);
    return 0;
  }
  if (count < size) buf[count] = '\0';
  return static_cast<unsigned int>(count > client::traceHeader ? count - client::traceHeader : 0);
}

unsigned int GetPacket(unsigned int connect, unsigned char* buf, unsigned int size) {
  std::size_t count = size;
  const kern_return_t result = CallGetPacket(connect, buf, count);
  if (result != KERN_SUCCESS) {
    ReportGetPacket(result);
    return 0;
  }
  if (count != 0) ReportPacket(count);
  return static_cast<unsigned int>(count);
}
