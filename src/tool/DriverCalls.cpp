#include "DriverCalls.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "Console.h"
#include "Records.h"
#include "State.h"

namespace {

constexpr char serviceClass[] = "kes_vpn_driver_keslbmac";

constexpr std::uint32_t openSelector = 0;
constexpr std::uint32_t packetSelector = 2;
constexpr std::uint32_t controlSelector = 3;

/// A call without scalars. A driver that reports more than it was offered is not believed.
kern_return_t call(unsigned int connect, std::uint32_t selector, const void* input, std::size_t inputSize,
                   void* output, std::size_t& count) {
  const std::size_t capacity = count;
  const kern_return_t result = ::IOConnectCallMethod(connect, selector, nullptr, 0, input, inputSize, nullptr,
                                                     nullptr, output, &count);
  count = std::min(count, capacity);
  return result;
}

bool openUserClient(CONNECTION_INFO& info, unsigned long long type) {
  kern_return_t result = ::IOServiceOpen(info.service, mach_task_self(), 0, &info.connect);
  if (result != KERN_SUCCESS) {
    Print("IOServiceOpen failed ret=0x%08x\n", static_cast<unsigned>(result));
    return false;
  }
  const std::uint64_t scalar = type;
  result = ::IOConnectCallScalarMethod(info.connect, openSelector, &scalar, 1, nullptr, nullptr);
  if (result != KERN_SUCCESS) {
    std::fprintf(stderr, "kKesLbUserClientOpen returned 0x%08x.\n\n", static_cast<unsigned>(result));
    return false;
  }
  return true;
}

}  // namespace

bool OpenConnection(CONNECTION_INFO& info, unsigned long long type) {
  info = {};
  info.service = ::IOServiceGetMatchingService(kIOMasterPortDefault, ::IOServiceMatching(serviceClass));
  if (info.service == 0) {
    std::fputs("IOServiceGetMatchingService didn't find a matching driver\n", stderr);
    return false;
  }
  Print("Found a device of class %s.\n", serviceClass);
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
  const SetDebugLevelsRecord record{.driver = dbgLvl.driver, .ppp = dbgLvl.ppp, .oid = dbgLvl.oid};
  const kern_return_t result = ::IOConnectCallMethod(connect, controlSelector, nullptr, 0, &record,
                                                     sizeof record, nullptr, nullptr, nullptr, nullptr);
  if (result != KERN_SUCCESS) {
    // This wording, that of another call but for the colon, is what support knows.
    std::fprintf(stderr, "GetTrace failed ret=0x%08x.\n\n", static_cast<unsigned>(result));
    return;
  }
  Print("set debug levels: driver=%d, ppp=%d, oid=%d\n", dbgLvl.driver, dbgLvl.ppp, dbgLvl.oid);
}

kern_return_t CallGetTrace(unsigned int connect, char* buf, std::size_t& count) {
  constexpr GetTraceRequest request;
  return call(connect, controlSelector, &request, sizeof request, buf, count);
}

kern_return_t CallGetPacket(unsigned int connect, unsigned char* buf, std::size_t& count) {
  return call(connect, packetSelector, nullptr, 0, buf, count);
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
  return static_cast<unsigned int>(count > traceHeader ? count - traceHeader : 0);
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
