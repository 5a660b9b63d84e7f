#pragma once

#include "kespal/NoCopy.h"

namespace kes::extcap {

/// While it lives, SIGINT, SIGTERM and SIGHUP ask the capture to end, unless they are ignored, as SIGPIPE
/// then is. A capture that cannot end, as its reader takes nothing or the driver does not answer, is killed a
/// second later.
class Ending : public NoCopy {
 public:
  Ending();
  ~Ending();

  static bool isAskedFor();
};

}  // namespace kes::extcap
