#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <typeinfo>

#include "kespal/error/Exception.h"

namespace kes::test {

/// The error that a call raises, which has to be of exactly this class.
template <typename Error, typename Call>
Error raisedAs(Call call) {
  try {
    call();
  } catch (const Exception& error) {
    EXPECT_EQ(typeid(error), typeid(Error)) << error.what();
    if (const auto* exact = dynamic_cast<const Error*>(&error)) return *exact;
  }
  throw std::runtime_error("not raised");
}

/// The text of the error that a call raises.
template <typename Call>
std::string errorOf(Call call) {
  try {
    call();
  } catch (const Exception& error) {
    return error.text();
  }
  return "nothing was raised";
}

}  // namespace kes::test
