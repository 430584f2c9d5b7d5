#include "common/src/util/CurrentException.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace zagent::common::util {
namespace {

template <typename Thrown>
std::string DescriptionOf(const Thrown& thrown) {
  try {
    throw thrown;
  } catch (...) {
    return DescribeCurrentException();
  }
}

TEST(CurrentExceptionTest, AnExceptionIsDescribedByItsText) {
  EXPECT_EQ(DescriptionOf(std::runtime_error("no room")), "no room");
}

TEST(CurrentExceptionTest, WhatIsNoExceptionIsAnUnknownFailure) {
  EXPECT_EQ(DescriptionOf(7), "unknown failure");
}

TEST(CurrentExceptionTest, AHandlerMayAskMoreThanOnce) {
  try {
    throw std::runtime_error("twice");
  } catch (...) {
    EXPECT_EQ(DescribeCurrentException() + DescribeCurrentException(), "twicetwice");
  }
}

}  // namespace
}  // namespace zagent::common::util
