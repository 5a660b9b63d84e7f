#pragma once

#include <sys/types.h>

#include "kesos/processes.h"

struct KesOsProcess {
  pid_t pid;   ///< 0 once the process has been reaped
  int status;  ///< as waitpid() reports it
  pid_t id;    ///< stays
};
