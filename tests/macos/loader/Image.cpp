#include "Image.h"

#include <sys/mman.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "Chains.h"
#include "Fixups.h"
#include "Processor.h"
#include "ThreadLocals.h"

extern char** environ;

namespace loader {

namespace {

/// The range below every program that catches null pointers; nothing is mapped for it.
bool isMapped(const Segment& segment) { return segment.name != "__PAGEZERO" && segment.size != 0; }

int protectionOf(const Segment& segment) {
  return ((segment.protection & 1) != 0 ? PROT_READ : 0) | ((segment.protection & 2) != 0 ? PROT_WRITE : 0) |
         ((segment.protection & 4) != 0 ? PROT_EXEC : 0);
}

}  // namespace

Image::Image(const std::string& path) : path_(path), file_(path) {
  map();
  rebase();
}

void Image::map() {
  lowest_ = std::numeric_limits<std::uint64_t>::max();
  std::uint64_t highest = 0;
  for (const Segment& segment : file_.segments()) {
    if (!isMapped(segment)) continue;
    lowest_ = std::min(lowest_, segment.address);
    highest = std::max(highest, segment.address + segment.size);
  }
  size_ = (highest - lowest_ + macPage - 1) / macPage * macPage;
  const std::size_t room = size_ + macPage;  // as the pages of this system may be smaller
  void* const place = ::mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) throw std::runtime_error("no memory for " + path_);
  const auto first = reinterpret_cast<std::uintptr_t>(place);
  base_ = static_cast<std::uint8_t*>(place) + (macPage - first % macPage) % macPage;
  for (const Segment& segment : file_.segments()) {
    if (!isMapped(segment) || segment.fileSize == 0) continue;
    std::memcpy(at<void>(segment.address), file_.bytes(segment.offset, segment.fileSize), segment.fileSize);
  }
}

void Image::rebase() {
  const std::uint8_t* const code = file_.bytes(file_.rebases.offset, file_.rebases.size);
  const std::uint64_t slide = reinterpret_cast<std::uint64_t>(base_) - lowest_;
  forEachRebase(code, code + file_.rebases.size, [&](unsigned segment, std::uint64_t offset) {
    *at<std::uint64_t>(file_.segments().at(segment).address + offset) += slide;
  });
}

void Image::bind(const Resolve& resolve, const Resolve& resolveWeak) {
  const auto bindAll = [&](const Range& list, const Resolve& find) {
    const std::uint8_t* const code = file_.bytes(list.offset, list.size);
    forEachBind(code, code + list.size,
                [&](unsigned segment, std::uint64_t offset, const std::string& symbol, std::int64_t addend) {
                  auto* const target = static_cast<std::uint8_t*>(find(symbol));
                  if (target == nullptr) return;
                  *at<std::uint8_t*>(file_.segments().at(segment).address + offset) = target + addend;
                });
  };
  bindAll(file_.binds, resolve);
  bindAll(file_.lazyBinds, resolve);
  bindAll(file_.weakBinds, resolveWeak);
  if (file_.chains.size != 0) {
    applyChains({file_.bytes(file_.chains.offset, file_.chains.size), file_.chains.size},
                {base_, size_, lowest_}, [&](const std::string& symbol, bool isWeak) {
                  void* const target = isWeak ? resolveWeak(symbol) : nullptr;
                  return target != nullptr ? target : resolve(symbol);
                });
  }
  adoptThreadLocals();
  protect();
}

void Image::adoptThreadLocals() {
  for (const Section& section : sections()) {
    if (section.kind != SectionKind::ThreadLocalDescriptors) continue;
    auto* const first = at<ThreadLocal>(section.address);
    std::for_each(first, first + section.size / sizeof(ThreadLocal), [&](ThreadLocal& variable) {
      variable.access = &threadLocalAccess;
      variable.image = this;
    });
  }
}

void Image::protect() {
  for (const Segment& segment : file_.segments()) {
    if (!isMapped(segment)) continue;
    auto* const begin = at<char>(segment.address);
    if ((segment.protection & 4) != 0) __builtin___clear_cache(begin, begin + segment.size);
    if (::mprotect(begin, segment.size, protectionOf(segment)) != 0) {
      throw std::runtime_error("cannot protect " + segment.name + " of " + path_);
    }
  }
}

void Image::runInitFunctions(int argc, char** argv) const {
  using InitFunction = void (*)(int, char**, char**, char**);
  const auto run = [&](InitFunction function) { function(argc, argv, environ, nullptr); };
  for (const Section& section : sections()) {
    if (section.kind == SectionKind::InitFunctions) {
      const auto* const first = at<InitFunction>(section.address);
      std::for_each(first, first + section.size / sizeof(InitFunction), run);
    } else if (section.kind == SectionKind::InitOffsets) {
      const auto* const first = at<std::uint32_t>(section.address);
      std::for_each(first, first + section.size / sizeof(std::uint32_t),
                    [&](std::uint32_t offset) { run(reinterpret_cast<InitFunction>(base_ + offset)); });
    }
  }
}

void* Image::symbol(const std::string& name) const {
  const auto found = file_.exports().find(name);
  return found == file_.exports().end() ? nullptr : at<void>(found->second);
}

std::pair<std::string, const void*> Image::symbolBefore(const void* address) const {
  std::pair<std::string, const void*> best(path_, base_);
  for (const auto& [name, place] : file_.exports()) {
    const void* const begin = at<void>(place);
    if (begin <= address && begin > best.second) best = {name, begin};
  }
  return best;
}

}  // namespace loader
