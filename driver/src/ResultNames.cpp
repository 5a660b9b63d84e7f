#include "ResultNames.h"

#include <IOKit/IOReturn.h>

#include <algorithm>
#include <iterator>

namespace kes::driver {
namespace {

struct Row {
  std::string_view name;
  kern_return_t code;
};

#define ROW(name) \
  { #name, name }
constexpr Row rows[] = {ROW(kIOReturnSuccess),          ROW(kIOReturnError),
                        ROW(kIOReturnNoMemory),         ROW(kIOReturnNoResources),
                        ROW(kIOReturnIPCError),         ROW(kIOReturnNoDevice),
                        ROW(kIOReturnNotPrivileged),    ROW(kIOReturnBadArgument),
                        ROW(kIOReturnLockedRead),       ROW(kIOReturnLockedWrite),
                        ROW(kIOReturnExclusiveAccess),  ROW(kIOReturnBadMessageID),
                        ROW(kIOReturnUnsupported),      ROW(kIOReturnVMError),
                        ROW(kIOReturnInternalError),    ROW(kIOReturnIOError),
                        ROW(kIOReturnCannotLock),       ROW(kIOReturnNotOpen),
                        ROW(kIOReturnNotReadable),      ROW(kIOReturnNotWritable),
                        ROW(kIOReturnNotAligned),       ROW(kIOReturnBadMedia),
                        ROW(kIOReturnStillOpen),        ROW(kIOReturnRLDError),
                        ROW(kIOReturnDMAError),         ROW(kIOReturnBusy),
                        ROW(kIOReturnTimeout),          ROW(kIOReturnOffline),
                        ROW(kIOReturnNotReady),         ROW(kIOReturnNotAttached),
                        ROW(kIOReturnNoChannels),       ROW(kIOReturnNoSpace),
                        ROW(kIOReturnPortExists),       ROW(kIOReturnCannotWire),
                        ROW(kIOReturnNoInterrupt),      ROW(kIOReturnNoFrames),
                        ROW(kIOReturnMessageTooLarge),  ROW(kIOReturnNotPermitted),
                        ROW(kIOReturnNoPower),          ROW(kIOReturnNoMedia),
                        ROW(kIOReturnUnformattedMedia), ROW(kIOReturnUnsupportedMode),
                        ROW(kIOReturnUnderrun),         ROW(kIOReturnOverrun),
                        ROW(kIOReturnDeviceError),      ROW(kIOReturnNoCompletion),
                        ROW(kIOReturnAborted),          ROW(kIOReturnNoBandwidth),
                        ROW(kIOReturnNotResponding),    ROW(kIOReturnIsoTooOld),
                        ROW(kIOReturnIsoTooNew),        ROW(kIOReturnNotFound),
                        ROW(kIOReturnInvalid),          ROW(MACH_SEND_INVALID_DEST)};
#undef ROW

}  // namespace

std::optional<std::uint32_t> resultNamed(std::string_view name) {
  const auto row =
      std::find_if(std::begin(rows), std::end(rows), [name](const Row& r) { return r.name == name; });
  if (row == std::end(rows)) return std::nullopt;
  return static_cast<std::uint32_t>(row->code);
}

}  // namespace kes::driver
