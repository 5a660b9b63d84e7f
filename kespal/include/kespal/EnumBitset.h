#pragma once  // since 0.1

#include <cstdint>
#include <initializer_list>
#include <type_traits>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// A set of enumeration flags, stored as a 32-bit mask. The enumerators of E are the masks themselves
/// (0x1, 0x2, 0x4, ...). A plain value: copy it freely; no operation throws.
template <typename E>
requires std::is_enum_v<E>
class EnumBitset {
 public:
  constexpr EnumBitset() noexcept = default;  ///< the empty set
  /// The set of one flag, or of several.
  constexpr EnumBitset(E flag) noexcept : mask_(bits(flag)) {}  // NOLINT(google-explicit-constructor)
  constexpr EnumBitset(std::initializer_list<E> flags) noexcept {
    for (E flag : flags) mask_ |= bits(flag);
  }

  /// The flags of both sets.
  constexpr EnumBitset operator|(EnumBitset other) const noexcept {
    EnumBitset both = *this;
    both.mask_ |= other.mask_;
    return both;
  }

  /// Whether every bit of the flag is in the set.
  constexpr bool test(E flag) const noexcept { return (mask_ & bits(flag)) == bits(flag); }
  constexpr void set(E flag) noexcept { mask_ |= bits(flag); }     ///< adds the flag
  constexpr std::uint32_t mask() const noexcept { return mask_; }  ///< all flags as bits

  friend constexpr bool operator==(EnumBitset, EnumBitset) noexcept = default;

 private:
  static constexpr std::uint32_t bits(E flag) noexcept { return static_cast<std::uint32_t>(flag); }

  std::uint32_t mask_ = 0;
};

}  // namespace kes

KES_EXPORT_END
