#include "ThreadLocals.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "Image.h"

namespace loader {

namespace {

bool isThreadLocal(const Section& section) {
  return section.kind == SectionKind::ThreadLocalData || section.kind == SectionKind::ThreadLocalZeroes;
}

/// This thread's copy of an image's thread-local variables. Never freed: destructors of such variables run
/// when the thread ends, after those of this program's own.
std::uint8_t* makeBlock(const Image& image) {
  std::uint64_t begin = std::numeric_limits<std::uint64_t>::max(), end = 0;
  for (const Section& section : image.sections()) {
    if (!isThreadLocal(section)) continue;
    begin = std::min(begin, section.address);
    end = std::max(end, section.address + section.size);
  }
  constexpr std::uint64_t alignment = 64;
  auto* const block = static_cast<std::uint8_t*>(
      std::aligned_alloc(alignment, (end - begin + alignment) / alignment * alignment));
  std::memset(block, 0, end - begin);
  for (const Section& section : image.sections()) {
    if (section.kind != SectionKind::ThreadLocalData) continue;
    std::memcpy(block + (section.address - begin), image.at<void>(section.address), section.size);
  }
  return block;
}

}  // namespace

extern "C" void* threadLocalAddress(const ThreadLocal* variable) {
  struct Block {
    const Image* image;
    std::uint8_t* memory;
  };
  static thread_local Block blocks[4];
  for (Block& block : blocks) {
    if (block.image == nullptr) block = {variable->image, makeBlock(*variable->image)};
    if (block.image == variable->image) return block.memory + variable->offset;
  }
  std::abort();
}

}  // namespace loader
