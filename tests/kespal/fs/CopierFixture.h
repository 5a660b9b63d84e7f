#pragma once

#include <sys/stat.h>

#include "kespal/fs/Copier.h"
#include "support/Descriptors.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {

/// A file to copy and a place for the copy; whatever a test does, no descriptor is left behind.
class CopierTest : public ::testing::Test {
 protected:
  CopierTest() {
    test::writeFile(from_, "content");
    ::chmod(from_.c_str(), 0640);
  }
  ~CopierTest() override {
    EXPECT_EQ(test::openDescriptors(), descriptors_) << "a descriptor was left behind";
  }

  test::Raised copying(const EnumBitset<Flags>& flags = {}, const Access* given = nullptr) const {
    return test::raisedBy([&] { Copier(nullptr, 0, flags, given).copy(from_.c_str(), to_.c_str()); });
  }

  static constexpr const char* copierSite = "src/fs/Copier";
  static constexpr const char* fileSite = "src/os/posix/fs/File";
  static constexpr const char* streamSite = "src/os/posix/fs/StreamFile";

  const std::vector<std::string> descriptors_ = test::openDescriptors();
  const test::TempDir folder_;
  const std::string from_ = folder_ / "from";
  const std::string to_ = folder_ / "to";
};

}  // namespace kes::fs
