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

constexpr Row rows[] = {
    {"kIOReturnSuccess", kIOReturnSuccess},
    {"kIOReturnError", kIOReturnError},
    {"kIOReturnNoMemory", kIOReturnNoMemory},
    {"kIOReturnNoResources", kIOReturnNoResources},
    {"kIOReturnIPCError", kIOReturnIPCError},
    {"kIOReturnNoDevice", kIOReturnNoDevice},
    {"kIOReturnNotPrivileged", kIOReturnNotPrivileged},
    {"kIOReturnBadArgument", kIOReturnBadArgument},
    {"kIOReturnLockedRead", kIOReturnLockedRead},
    {"kIOReturnLockedWrite", kIOReturnLockedWrite},
    {"kIOReturnExclusiveAccess", kIOReturnExclusiveAccess},
    {"kIOReturnBadMessageID", kIOReturnBadMessageID},
    {"kIOReturnUnsupported", kIOReturnUnsupported},
    {"kIOReturnVMError", kIOReturnVMError},
    {"kIOReturnInternalError", kIOReturnInternalError},
    {"kIOReturnIOError", kIOReturnIOError},
    {"kIOReturnCannotLock", kIOReturnCannotLock},
    {"kIOReturnNotOpen", kIOReturnNotOpen},
    {"kIOReturnNotReadable", kIOReturnNotReadable},
    {"kIOReturnNotWritable", kIOReturnNotWritable},
    {"kIOReturnNotAligned", kIOReturnNotAligned},
    {"kIOReturnBadMedia", kIOReturnBadMedia},
    {"kIOReturnStillOpen", kIOReturnStillOpen},
    {"kIOReturnRLDError", kIOReturnRLDError},
    {"kIOReturnDMAError", kIOReturnDMAError},
    {"kIOReturnBusy", kIOReturnBusy},
    {"kIOReturnTimeout", kIOReturnTimeout},
    {"kIOReturnOffline", kIOReturnOffline},
    {"kIOReturnNotReady", kIOReturnNotReady},
    {"kIOReturnNotAttached", kIOReturnNotAttached},
    {"kIOReturnNoChannels", kIOReturnNoChannels},
    {"kIOReturnNoSpace", kIOReturnNoSpace},
    {"kIOReturnPortExists", kIOReturnPortExists},
    {"kIOReturnCannotWire", kIOReturnCannotWire},
    {"kIOReturnNoInterrupt", kIOReturnNoInterrupt},
    {"kIOReturnNoFrames", kIOReturnNoFrames},
    {"kIOReturnMessageTooLarge", kIOReturnMessageTooLarge},
    {"kIOReturnNotPermitted", kIOReturnNotPermitted},
    {"kIOReturnNoPower", kIOReturnNoPower},
    {"kIOReturnNoMedia", kIOReturnNoMedia},
    {"kIOReturnUnformattedMedia", kIOReturnUnformattedMedia},
    {"kIOReturnUnsupportedMode", kIOReturnUnsupportedMode},
    {"kIOReturnUnderrun", kIOReturnUnderrun},
    {"kIOReturnOverrun", kIOReturnOverrun},
    {"kIOReturnDeviceError", kIOReturnDeviceError},
    {"kIOReturnNoCompletion", kIOReturnNoCompletion},
    {"kIOReturnAborted", kIOReturnAborted},
    {"kIOReturnNoBandwidth", kIOReturnNoBandwidth},
    {"kIOReturnNotResponding", kIOReturnNotResponding},
    {"kIOReturnIsoTooOld", kIOReturnIsoTooOld},
    {"kIOReturnIsoTooNew", kIOReturnIsoTooNew},
    {"kIOReturnNotFound", kIOReturnNotFound},
    {"kIOReturnInvalid", kIOReturnInvalid},
    {"MACH_SEND_INVALID_DEST", MACH_SEND_INVALID_DEST},
};

}  // namespace

std::optional<std::uint32_t> resultNamed(std::string_view name) {
  const auto row =
      std::find_if(std::begin(rows), std::end(rows), [name](const Row& r) { return r.name == name; });
  if (row == std::end(rows)) return std::nullopt;
  return static_cast<std::uint32_t>(row->code);
}

}  // namespace kes::driver
