#include "support/TempDir.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kes::test {

namespace {

namespace stdfs = std::filesystem;

/// Lets the owner into a directory and all below it: a test may have closed some, and only root gets in.
void openUp(const std::string& path) {
  std::error_code error;
  stdfs::permissions(path, stdfs::perms::owner_all, stdfs::perm_options::add, error);
  for (stdfs::recursive_directory_iterator at(path, error), end; !error && at != end; at.increment(error)) {
    if (!at->is_symlink() && at->is_directory()) {
      stdfs::permissions(at->path(), stdfs::perms::owner_all, stdfs::perm_options::add, error);
    }
  }
}

}  // namespace

// A temporary directory may lie behind a link, which a working directory does not show.
TempDir::TempDir() : TempDir(stdfs::canonical(stdfs::temp_directory_path()).string()) {}

TempDir::TempDir(const std::string& below) : top_(below + "/kes-test-XXXXXX") {
  if (::mkdtemp(top_.data()) == nullptr) throw std::runtime_error("cannot create " + top_);
  path_ = top_ + "/sandbox";
  std::filesystem::create_directory(path_);
  std::filesystem::permissions(top_, std::filesystem::perms(0755));
}

TempDir::~TempDir() {
  std::error_code ignored;
  openUp(path_);
  std::filesystem::remove_all(top_, ignored);
}

std::string inMemory() {
  const std::string memory = "/dev/shm";
  return std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path().string();
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace kes::test
