#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace loader {

/// Where the pointers of an image are that has its fixups as chains: each pointer holds what to make of it,
/// and how far the next one is.
struct ChainedImage {
  std::uint8_t* memory;
  std::uint64_t size;
  std::uint64_t firstAddress;  ///< that of the file which lies at `memory`
};

/// What an imported name stands for; `isWeak` when several images may define it.
using ResolveChained = std::function<void*(const std::string& symbol, bool isWeak)>;

/// Makes every pointer of the image what its place in a chain says. `table` is the file's list of chains and
/// names; names are given as forEachBind() does. Throws std::runtime_error for a table that is none, and for
/// the kinds of pointers that other processors have.
void applyChains(std::span<const std::uint8_t> table, const ChainedImage& image,
                 const ResolveChained& resolve);

}  // namespace loader
