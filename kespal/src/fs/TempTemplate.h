#pragma once

#include "kespal/fs/StandardPaths.h"

namespace kes::fs {

/// What the system makes a temporary name of: `name`, in the temporary directory if it holds no '/', and
/// six characters X.
inline std::string tempTemplate(const std::string& name) {
  const bool isPath = name.find('/') != std::string::npos;
  const std::string place = isPath ? name : StandardPaths::tempDir() + name;
  return place + "XXXXXX";
}

}  // namespace kes::fs
