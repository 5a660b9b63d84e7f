#include "fs/TempTemplate.h"

#include "kespal/fs/StandardPaths.h"

namespace kes::fs {

std::string tempTemplate(const std::string& name) {
  std::string result = name;
  if (name.find('/') == std::string::npos) result = StandardPaths::tempDir() + name;
  return result.append("XXXXXX");
}

}  // namespace kes::fs
