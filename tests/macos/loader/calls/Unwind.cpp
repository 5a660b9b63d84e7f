#include <algorithm>
#include <cstdint>

#include "Calls.h"

namespace loader {

namespace {

struct UnwindSections {
  const void* image;
  const void* frames;
  std::uint64_t framesSize;
  const void* compact;
  std::uint64_t compactSize;
};

/// Tells the unwinder where the tables of the image around an address lie. The caller
/// expects a bool, which on arm64 fills a whole register over there, and one byte here.
int findUnwindSections(const void* address, UnwindSections* found) {
  const auto image =
      std::ranges::find_if(program.images, [&](const Image* each) { return each->contains(address); });
  if (image == program.images.end()) return 0;
  *found = {(*image)->base(), nullptr, 0, nullptr, 0};
  for (const Section& section : (*image)->sections()) {
    const void* const begin = (*image)->at<void>(section.address);
    if (section.name == "__eh_frame") found->frames = begin, found->framesSize = section.size;
    if (section.name == "__unwind_info") found->compact = begin, found->compactSize = section.size;
  }
  return 1;
}

const Call calls[] = {{"_dyld_find_unwind_sections", findUnwindSections}};

}  // namespace

std::span<const Call> unwindCalls() { return calls; }

}  // namespace loader
