#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>

#include "sys/Owner.h"

namespace kes::iokit {

/// A close-on-exec SOCK_SEQPACKET socket above the standard descriptors: where those are closed, a program's
/// output must not end up in a socket. None (errno says why) when there are no descriptors left.
sys::Descriptor makeSocket();

/// The address of a socket file; nothing when the path does not fit.
std::optional<sockaddr_un> addressOf(const std::string& path);

/// <directory>/<service class>.sock
std::string socketPath(const std::string& directory, const std::string& serviceClass);
/// The directory of the sockets: KES_IOREGISTRY, or /run/kes.
std::string registryDirectory();

}  // namespace kes::iokit
