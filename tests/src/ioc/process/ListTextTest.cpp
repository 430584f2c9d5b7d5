#include "src/ioc/process/ListText.h"

#include <gtest/gtest.h>

#include <random>

namespace zagent::ioc::internal {
namespace {

using Texts = std::vector<std::string>;

TEST(ListTextTest, ItemsStandBetweenColons) {
  EXPECT_EQ(JoinList({"a", "b", "c"}), "a:b:c");
  EXPECT_EQ(ReadList("a:b:c"), (Texts{"a", "b", "c"}));
}

TEST(ListTextTest, AnEmptyTextIsTheEmptyList) {
  EXPECT_EQ(JoinList({}), "");
  EXPECT_EQ(ReadList(""), Texts{});
}

TEST(ListTextTest, AnEmptyItemHasATextOfItsOwn) {
  EXPECT_EQ(JoinList({""}), "%00");
  EXPECT_EQ(JoinList({"", "a", ""}), "%00:a:%00");
  EXPECT_EQ(ReadList("%00"), Texts{""});
  EXPECT_EQ(ReadList("%00:a:%00"), (Texts{"", "a", ""}));
}

TEST(ListTextTest, WhatMeansSomethingIsEncoded) {
  EXPECT_EQ(JoinList({"a:b", "50%", "x=y"}), "a%3Ab:50%25:x%3Dy");
  EXPECT_EQ(ReadList("a%3Ab:50%25:x%3Dy"), (Texts{"a:b", "50%", "x=y"}));
  EXPECT_EQ(ReadList("a%3ab"), Texts{"a:b"});
}

TEST(ListTextTest, NulWithinAnItemIsEncodedSinceSqlWouldEndThere) {
  const std::string item("a\0b", 3);
  EXPECT_EQ(JoinList({item}), "a%00b");
  EXPECT_EQ(ReadList("a%00b"), Texts{item});
}

TEST(ListTextTest, WhatIsNotEncodedWellStaysAsItIs) {
  EXPECT_EQ(ReadList("50%:%4:%zz:%-1:%4g"), (Texts{"50%", "%4", "%zz", "%-1", "%4g"}));
  EXPECT_EQ(ReadList("a::b"), (Texts{"a", "", "b"}));
}

TEST(ListTextTest, EveryListComesBackAsItWas) {
  std::mt19937 random(7);  // NOLINT(cert-msc32-c,cert-msc51-cpp)
  const std::string alphabet("a:%=0\n'\xff;\"", 10);
  for (int round = 0; round < 2'000; ++round) {
    Texts items(random() % 6);
    for (std::string& item : items) {
      for (std::size_t left = random() % 5; left > 0; --left) item += alphabet[random() % alphabet.size()];
    }
    ASSERT_EQ(ReadList(JoinList(items)), items) << JoinList(items);
  }
}

TEST(ListTextTest, AnItemOfOneNulIsTheEmptyItem) {
  const std::string nul(1, '\0');
  EXPECT_EQ(ReadList(nul), std::vector<std::string>{""});
  EXPECT_EQ(ReadList(JoinList({nul, nul + "a"})), (std::vector<std::string>{"", nul + "a"}));
}

}  // namespace
}  // namespace zagent::ioc::internal
