#include "src/edr/LexicalPath.h"

#include <gtest/gtest.h>

namespace zagent::edr {
namespace {

TEST(LexicalPathTest, ATidyPathStaysAsItIs) {
  for (const char* path : {"/", "/etc", "/etc/passwd", "/etc/a.b/c..d/e.", "etc/passwd", ""}) {
    EXPECT_EQ(LexicallyNormal(path), path);
  }
}

TEST(LexicalPathTest, WhatMeansNothingGoes) {
  EXPECT_EQ(LexicallyNormal("/etc/"), "/etc");
  EXPECT_EQ(LexicallyNormal("/etc//ssh///"), "/etc/ssh");
  EXPECT_EQ(LexicallyNormal("//etc"), "/etc");
  EXPECT_EQ(LexicallyNormal("/./etc/./ssh/."), "/etc/ssh");
  EXPECT_EQ(LexicallyNormal("///"), "/");
  EXPECT_EQ(LexicallyNormal("/."), "/");
  EXPECT_EQ(LexicallyNormal("./etc/"), "etc");
}

TEST(LexicalPathTest, ATidyPathKeepsItsTwoDots) {
  EXPECT_EQ(Tidy("/etc//ssl/./../ssh/"), "/etc/ssl/../ssh");
  EXPECT_EQ(Tidy("/.."), "/..");
  EXPECT_EQ(Tidy("//"), "/");
  EXPECT_EQ(Tidy(""), "");
}

TEST(LexicalPathTest, TwoDotsLeadUpAndNeverAboveTheTop) {
  EXPECT_EQ(LexicallyNormal("/etc/ssl/../ssh"), "/etc/ssh");
  EXPECT_EQ(LexicallyNormal("/etc/ssl/.."), "/etc");
  EXPECT_EQ(LexicallyNormal("/etc/.."), "/");
  EXPECT_EQ(LexicallyNormal("/../../etc"), "/etc");
}

TEST(LexicalPathTest, NamesThatBeginWithADotAreNames) {
  EXPECT_EQ(LexicallyNormal("/etc/.git/..."), "/etc/.git/...");
  EXPECT_EQ(LexicallyNormal("/etc/..data/x/"), "/etc/..data/x");
}

}  // namespace
}  // namespace zagent::edr
