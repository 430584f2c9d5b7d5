#include "common/src/util/ThreadName.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

namespace zagent::common::util {
namespace {

std::string NameInProc() {
  std::ifstream in("/proc/self/task/" + std::to_string(gettid()) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

TEST(ThreadNameTest, NamesTheCallingThreadOnly) {
  const std::string before = NameInProc();
  std::string name;
  std::thread([&] {
    NameThisThread("edr-parser");
    name = NameInProc();
  }).join();
  EXPECT_EQ(name, "edr-parser");
  EXPECT_EQ(NameInProc(), before);
}

TEST(ThreadNameTest, CutsALongNameInsteadOfRefusingIt) {
  std::string name;
  std::thread([&] {
    NameThisThread("0123456789abcdefgh");
    name = NameInProc();
  }).join();
  EXPECT_EQ(name, "0123456789abcde");
}

}  // namespace
}  // namespace zagent::common::util
