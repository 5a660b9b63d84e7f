#pragma once

#include <string>

/// What the analyser asks about before it captures, in the words of its protocol.
namespace kes::extcap {

/// The driver as the analyser's menu names it. There is one interface, of one link type: the driver hands
/// over each packet from its Ethernet header on, whatever the tunnel is made of.
inline constexpr char interfaceName[] = "kes_vpn";
inline constexpr unsigned linkType = 1;

inline constexpr char driverOption[] = "--driver-level";
inline constexpr char pppOption[] = "--ppp-level";
inline constexpr char oidOption[] = "--oid-level";
inline constexpr char totalsOption[] = "--totals";

/// The controls of the toolbar, by their numbers.
enum Control : unsigned char { DriverLevel, PppLevel, OidLevel, TraceLog };

/// The interface and the toolbar.
std::string interfaces();
std::string linkTypes();
/// What may be set before a capture starts.
std::string options();

/// The answer to every capture filter.
inline constexpr char noFilters[] =
    "the driver knows no capture filters: capture all and use a display filter";

}  // namespace kes::extcap
