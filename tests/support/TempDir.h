#pragma once

#include <string>

namespace kes::test {

/// A private directory, two levels below the system's temporary one, removed with all it holds when the
/// object dies. Removal never follows a link.
class TempDir {
 public:
  TempDir();
  explicit TempDir(const std::string& below);
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  /// The path of an entry in it.
  std::string operator/(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string top_;
  std::string path_;
};

/// Where a directory of many entries is quick to fill: in memory, if there is such a place.
std::string inMemory();

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);

}  // namespace kes::test
