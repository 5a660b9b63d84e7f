#pragma once

#include <gmock/gmock.h>

#include <iostream>
#include <string>

#include "kespal/error/Exception.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"

namespace kes::test {

/// Destroys what `make` makes while a system call fails that its destructor needs, std::cerr throws at
/// whatever is written to it, and memory is out, sooner or later: each time a report has to come that begins
/// with `headline`, and the program has to go on.
template <typename Make>
void expectReportOfDying(Call call, Make make, const std::string& headline) {
  for (const bool backtraces : {false, true}) {
    for (std::size_t before = 0; before < 12; ++before) {
      const auto child = inChild([&] {
        Exception::m_gen_backtraces = backtraces;
        std::cerr.setstate(std::ios::badbit);
        try {
          std::cerr.exceptions(std::ios::badbit);
        } catch (const std::ios::failure&) {  // it is in that state already
        }
        {
          auto* const object = make();
          const Refuse failing(call, EIO);
          const NoMemory starving(before);
          delete object;
        }
        std::cerr.exceptions(std::ios::goodbit);
        std::cerr.clear();
        return 0;
      });
      EXPECT_EQ(child.exitCode(), 0) << child.err;
      EXPECT_THAT(child.err, ::testing::StartsWith(headline)) << before << " allocations";
    }
  }
}

}  // namespace kes::test
