#include "Chains.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace loader {
namespace {

constexpr std::uint64_t firstAddress = 0x100000000, pageSize = 64, segment = 64;
constexpr std::uint16_t none = 0xFFFF;

std::uint64_t own(std::uint64_t target, std::uint64_t next = 0, std::uint64_t highest = 0) {
  return target | highest << 36 | next / 4 << 51;
}

std::uint64_t import(std::uint64_t number, std::uint64_t next = 0, std::uint64_t addend = 0) {
  return number | addend << 24 | next / 4 << 51 | std::uint64_t{1} << 63;
}

template <typename T>
void append(std::vector<std::uint8_t>& bytes, T value) {
  const auto* const first = reinterpret_cast<const std::uint8_t*>(&value);
  bytes.insert(bytes.end(), first, first + sizeof value);
}

/// A table for an image of two segments, the second of which has chains, with the names _one and
/// _two$VARIANT.
struct Table {
  std::uint16_t pointers = 6;
  std::vector<std::uint16_t> pages = {0};
  std::uint32_t importFormat = 1, compression = 0;
  std::array<std::uint8_t, 2> libraries = {1, 1};

  std::vector<std::uint8_t> bytes() const {
    const std::string texts("_one\0_two$VARIANT\0", 18);
    std::vector<std::uint8_t> starts, imports, table;
    for (const std::uint32_t value : {2U, 0U, 12U}) append(starts, value);
    append<std::uint32_t>(starts, 22 + 2 * static_cast<std::uint32_t>(pages.size()));
    for (const std::uint16_t value : {std::uint16_t{pageSize}, pointers}) append(starts, value);
    append<std::uint64_t>(starts, segment);
    append<std::uint32_t>(starts, 0);
    append<std::uint16_t>(starts, static_cast<std::uint16_t>(pages.size()));
    for (const std::uint16_t page : pages) append(starts, page);
    for (std::uint32_t i = 0; i < 2; ++i) appendImport(imports, libraries.at(i), i * 5);
    const auto startsSize = static_cast<std::uint32_t>(starts.size());
    for (const std::uint32_t value :
         {0U, 28U, 28 + startsSize, 28 + startsSize + static_cast<std::uint32_t>(imports.size()), 2U,
          importFormat, compression}) {
      append(table, value);
    }
    for (const auto& part : {starts, imports, std::vector<std::uint8_t>(texts.begin(), texts.end())}) {
      table.insert(table.end(), part.begin(), part.end());
    }
    return table;
  }

 private:
  void appendImport(std::vector<std::uint8_t>& imports, std::uint8_t library, std::uint32_t text) const {
    if (importFormat == 3) {
      const auto wide = static_cast<std::uint16_t>(static_cast<std::int8_t>(library));
      append<std::uint64_t>(imports, wide | std::uint64_t{text} << 32);
      append<std::int64_t>(imports, -16);
    } else {
      append<std::uint32_t>(imports, library | text << 9);
      if (importFormat == 2) append<std::int32_t>(imports, -16);
    }
  }
};

class ChainsTest : public testing::Test {
 protected:
  void put(std::uint64_t place, std::uint64_t value) {
    std::memcpy(memory_.data() + place, &value, sizeof value);
  }
  std::uint64_t at(std::uint64_t place) const {
    std::uint64_t value = 0;
    std::memcpy(&value, memory_.data() + place, sizeof value);
    return value;
  }
  std::uint64_t inImage(std::uint64_t offset) const {
    return reinterpret_cast<std::uint64_t>(memory_.data()) + offset;
  }

  void applyBytes(const std::vector<std::uint8_t>& table) {
    applyChains(table, {memory_.data(), memory_.size(), firstAddress},
                [this](const std::string& symbol, bool isWeak) {
                  asked_.push_back(isWeak ? symbol + " (weak)" : symbol);
                  return symbol == "one" ? static_cast<void*>(&one_) : &two_;
                });
  }
  void apply(const Table& table) { applyBytes(table.bytes()); }

  std::string complaintAbout(const Table& table) {
    try {
      apply(table);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "none";
  }

  std::vector<std::uint8_t> memory_ = std::vector<std::uint8_t>(256);
  std::array<char, 32> one_{}, two_{};
  std::vector<std::string> asked_;
};

TEST_F(ChainsTest, APointerToTheImageItselfMovesWithItWhetherItHoldsAnOffsetOrAnAddress) {
  put(segment, own(0x28));
  apply({.pointers = 6});
  EXPECT_EQ(at(segment), inImage(0x28));
  put(segment, own(firstAddress + 0x30));
  apply({.pointers = 2});
  EXPECT_EQ(at(segment), inImage(0x30));
}

TEST_F(ChainsTest, TheHighestByteOfAPointerIsKept) {
  put(segment, own(0x28, 0, 0xA5));
  apply(Table());
  EXPECT_EQ(at(segment), inImage(0x28) | std::uint64_t{0xA5} << 56);
}

TEST_F(ChainsTest, EachPointerLeadsToTheNextAlsoToOneAtAnOddPlace) {
  put(segment, own(1, 12));
  put(segment + 12, own(2, 40));
  put(segment + 52, own(3));
  apply(Table());
  EXPECT_EQ(at(segment), inImage(1));
  EXPECT_EQ(at(segment + 12), inImage(2));
  EXPECT_EQ(at(segment + 52), inImage(3));
}

TEST_F(ChainsTest, EachPageBeginsAChainOfItsOwnOrHasNone) {
  put(segment + 8, own(1));
  put(segment + pageSize, own(2));
  put(segment + 2 * pageSize + 16, own(3));
  apply({.pages = {8, none, 16}});
  EXPECT_EQ(at(segment + 8), inImage(1));
  EXPECT_EQ(at(segment + pageSize), own(2));
  EXPECT_EQ(at(segment + 2 * pageSize + 16), inImage(3));
}

TEST_F(ChainsTest, ANameIsAskedForAsTheCallIsNamedAndItsAddendIsAdded) {
  put(segment, import(1, 8, 3));
  put(segment + 8, import(0));
  apply(Table());
  EXPECT_EQ(at(segment), reinterpret_cast<std::uint64_t>(&two_) + 3);
  EXPECT_EQ(at(segment + 8), reinterpret_cast<std::uint64_t>(&one_));
  EXPECT_THAT(asked_, testing::ElementsAre("two", "one"));
}

TEST_F(ChainsTest, ANameMayHaveAnAddendForAllThatPointToIt) {
  for (const std::uint32_t format : {2U, 3U}) {
    put(segment, import(1, 8, 3));
    put(segment + 8, import(0));
    apply({.importFormat = format});
    EXPECT_EQ(at(segment), reinterpret_cast<std::uint64_t>(&two_) - 13) << format;
    EXPECT_EQ(at(segment + 8), reinterpret_cast<std::uint64_t>(&one_) - 16) << format;
  }
}

TEST_F(ChainsTest, ANameOfNoCertainLibraryIsWeak) {
  for (const std::uint32_t format : {1U, 2U, 3U}) {
    put(segment, import(0, 8));
    put(segment + 8, import(1));
    apply({.importFormat = format, .libraries = {1, 0xFD}});
  }
  EXPECT_THAT(asked_, testing::ElementsAre("one", "two (weak)", "one", "two (weak)", "one", "two (weak)"));
}

TEST_F(ChainsTest, WhatOtherProcessorsOrPackersMakeIsRefusedWithItsFormat) {
  EXPECT_EQ(complaintAbout({.pointers = 1}), "chained fixups with pointers of format 1 are not understood");
  EXPECT_EQ(complaintAbout({.importFormat = 4}),
            "chained fixups with imports of format 4 are not understood");
  EXPECT_EQ(complaintAbout({.compression = 1}), "chained fixups with names of format 1 are not understood");
}

TEST_F(ChainsTest, ATableThatEndsTooEarlyIsRefusedWhereverItEnds) {
  const std::vector<std::uint8_t> table = Table().bytes();
  for (std::size_t size = 0; size < table.size(); ++size) {
    put(segment, own(1));
    EXPECT_THROW(applyBytes({table.begin(), table.begin() + static_cast<std::ptrdiff_t>(size)}),
                 std::runtime_error)
        << size;
  }
}

TEST_F(ChainsTest, AChainThatLeavesTheImageIsRefused) {
  put(segment, own(1, 188));
  EXPECT_EQ(complaintAbout(Table()), "a list of chains ends too early");
}

TEST_F(ChainsTest, ANumberWithoutANameIsRefused) {
  put(segment, import(2));
  EXPECT_THROW(apply(Table()), std::out_of_range);
}

}  // namespace
}  // namespace loader
