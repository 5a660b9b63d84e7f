#include <iterator>

#include "pcaplib/capture.h"

bool DumpClose(PCAP_TYPE type) {
  if (type >= std::size(cap_types)) return false;
  CaptureType& entry = cap_types[type];
  entry.opened = 0;
  entry.path[0] = '\0';
  return true;
}
