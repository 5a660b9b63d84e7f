// What every test finds included.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>
