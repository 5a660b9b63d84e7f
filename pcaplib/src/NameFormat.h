#pragma once

#include <string>

namespace kes::pcap {

/// Expands "%s" in a name that a user typed, as printf does with the two arguments: "%s" takes the next one,
/// "%1$s" and "%2$s" a certain one, each with flags, width and precision; "%%" is "%". Whatever else follows
/// a "%" stays as it stands, so that no text can read or write what it should not. Once the result has
/// reached `limit` characters it may be cut anywhere behind that.
std::string expandName(const char* format, const char* first, const char* second, std::size_t limit);

}  // namespace kes::pcap
