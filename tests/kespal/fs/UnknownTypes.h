#pragma once

#include <dirent.h>

#include "support/Calls.h"

namespace kes::test {

/// Lets readdir() keep the types of entries to itself, as some file systems do.
struct UnknownTypes : Instead<Call::readdir> {
  UnknownTypes()
      : Instead([](DIR* folder) {
          dirent* const entry = real<Call::readdir>(folder);
          if (entry != nullptr) entry->d_type = DT_UNKNOWN;
          return entry;
        }) {}
};

}  // namespace kes::test
