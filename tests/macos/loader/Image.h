#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "MachFile.h"

namespace loader {

/// A Mach-O file in memory. Stays there for ever, as threads and exit handlers may run its code to the end.
class Image {
 public:
  explicit Image(const std::string& path);

  /// Finds the address of a symbol; null leaves a weak definition as it is.
  using Resolve = std::function<void*(const std::string& symbol)>;
  /// Points every imported symbol where `resolve` says, then makes the segments what they shall be.
  void bind(const Resolve& resolve, const Resolve& resolveWeak);
  void runInitFunctions(int argc, char** argv) const;

  const std::string& path() const { return path_; }
  const std::vector<Section>& sections() const { return file_.sections(); }
  bool contains(const void* address) const { return address >= base_ && address < base_ + size_; }
  const std::uint8_t* base() const { return base_; }
  void* entry() const { return base_ + file_.entry(); }
  /// A defined external symbol; null when there is none of that name.
  void* symbol(const std::string& name) const;
  /// The external symbol at or before an address, and where it begins; the image itself before the first one.
  std::pair<std::string, const void*> symbolBefore(const void* address) const;
  /// Where an address of the file lies in memory.
  template <typename T>
  T* at(std::uint64_t address) const {
    return reinterpret_cast<T*>(base_ + (address - lowest_));
  }

 private:
  void map();
  void rebase();
  void adoptThreadLocals();
  void protect();

  std::string path_;
  MachFile file_;
  std::uint64_t lowest_ = 0, size_ = 0;
  std::uint8_t* base_ = nullptr;
};

}  // namespace loader
