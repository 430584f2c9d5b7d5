#include "common/src/util/DeepPtr.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace zagent::common::util {
namespace {

TEST(DeepPtrTest, HoldsNothingUntilSomebodyGetsIt) {
  DeepPtr<std::string> pointer;
  EXPECT_EQ(pointer.Find(), nullptr);
  EXPECT_EQ(pointer.Get("first"), "first");
  ASSERT_NE(pointer.Find(), nullptr);
  EXPECT_EQ(*pointer.Find(), "first");
}

TEST(DeepPtrTest, KeepsTheObjectThatItHas) {
  DeepPtr<std::string> pointer;
  pointer.Get("first");
  EXPECT_EQ(pointer.Get("second"), "first");
}

TEST(DeepPtrTest, CopiesTheObjectAndNotThePointer) {
  DeepPtr<std::string> pointer;
  pointer.Get("first");
  DeepPtr<std::string> copy(pointer);
  pointer.Get() = "changed";
  EXPECT_EQ(*copy.Find(), "first");
  copy = pointer;
  pointer.Get() = "changed again";
  EXPECT_EQ(*copy.Find(), "changed");
}

TEST(DeepPtrTest, CopiesNothingAsNothing) {
  const DeepPtr<std::string> nothing;
  const DeepPtr<std::string> copy(nothing);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(copy.Find(), nullptr);
  DeepPtr<std::string> pointer;
  pointer.Get("first");
  pointer = nothing;
  EXPECT_EQ(pointer.Find(), nullptr);
}

TEST(DeepPtrTest, MovesTheObjectItself) {
  DeepPtr<std::string> pointer;
  const std::string* object = &pointer.Get("first");
  DeepPtr<std::string> moved(std::move(pointer));
  EXPECT_EQ(moved.Find(), object);
  DeepPtr<std::string> assigned;
  assigned = std::move(moved);
  EXPECT_EQ(assigned.Find(), object);
}

TEST(DeepPtrTest, LetsTheObjectGo) {
  DeepPtr<std::string> pointer;
  pointer.Get("first");
  pointer.Reset();
  EXPECT_EQ(pointer.Find(), nullptr);
  EXPECT_EQ(pointer.Get("second"), "second");
}

}  // namespace
}  // namespace zagent::common::util
