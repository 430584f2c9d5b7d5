#include "src/audit/events/CompatCalls.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zagent::audit::internal {
namespace {

struct Pair {
  const char* name;
  std::uint32_t i386, x86_64;
};

// The numbers of both architectures, from the kernel's tables.
const std::vector<Pair> kPairs = {
    {"fork", 2, 57},
    {"read", 3, 0},
    {"write", 4, 1},
    {"open", 5, 2},
    {"creat", 8, 85},
    {"link", 9, 86},
    {"unlink", 10, 87},
    {"execve", 11, 59},
    {"mknod", 14, 133},
    {"chmod", 15, 90},
    {"lchown", 16, 94},
    {"utime", 30, 132},
    {"rename", 38, 82},
    {"mkdir", 39, 83},
    {"rmdir", 40, 84},
    {"symlink", 83, 88},
    {"truncate", 92, 76},
    {"ftruncate", 93, 77},
    {"fchmod", 94, 91},
    {"fchown", 95, 93},
    {"clone", 120, 56},
    {"readv", 145, 19},
    {"writev", 146, 20},
    {"pread64", 180, 17},
    {"pwrite64", 181, 18},
    {"chown", 182, 92},
    {"vfork", 190, 58},
    {"truncate64", 193, 76},
    {"ftruncate64", 194, 77},
    {"lchown32", 198, 94},
    {"fchown32", 207, 93},
    {"chown32", 212, 92},
    {"setxattr", 226, 188},
    {"lsetxattr", 227, 189},
    {"fsetxattr", 228, 190},
    {"removexattr", 235, 197},
    {"lremovexattr", 236, 198},
    {"fremovexattr", 237, 199},
    {"exit_group", 252, 231},
    {"utimes", 271, 235},
    {"openat", 295, 257},
    {"mkdirat", 296, 258},
    {"mknodat", 297, 259},
    {"fchownat", 298, 260},
    {"futimesat", 299, 261},
    {"unlinkat", 301, 263},
    {"renameat", 302, 264},
    {"linkat", 303, 265},
    {"symlinkat", 304, 266},
    {"fchmodat", 306, 268},
    {"utimensat", 320, 280},
    {"open_by_handle_at", 342, 304},
    {"renameat2", 353, 316},
    {"execveat", 358, 322},
    {"bind", 361, 49},
    {"connect", 362, 42},
    {"utimensat_time64", 412, 280},
    {"clone3", 435, 435},
    {"openat2", 437, 437},
    {"fchmodat2", 452, 452},
};

TEST(CompatCallsTest, TranslatesEveryCallThatMakesAnEvent) {
  for (const Pair& pair : kPairs) EXPECT_EQ(TranslateCompatCall(pair.i386, 0), pair.x86_64) << pair.name;
}

TEST(CompatCallsTest, LooksIntoASocketCall) {
  EXPECT_EQ(TranslateCompatCall(102, 1), 41U);    // socket
  EXPECT_EQ(TranslateCompatCall(102, 2), 49U);    // bind
  EXPECT_EQ(TranslateCompatCall(102, 3), 42U);    // connect
  EXPECT_EQ(TranslateCompatCall(102, 4), 50U);    // listen
  EXPECT_EQ(TranslateCompatCall(102, 5), 43U);    // accept
  EXPECT_EQ(TranslateCompatCall(102, 11), 44U);   // sendto
  EXPECT_EQ(TranslateCompatCall(102, 16), 46U);   // sendmsg
  EXPECT_EQ(TranslateCompatCall(102, 18), 288U);  // accept4
  EXPECT_EQ(TranslateCompatCall(102, 0), std::nullopt);
  EXPECT_EQ(TranslateCompatCall(102, 6), std::nullopt);  // getsockname
  EXPECT_EQ(TranslateCompatCall(102, 21), std::nullopt);
  EXPECT_EQ(TranslateCompatCall(102, 0xffffffffffffffffU), std::nullopt);
}

TEST(CompatCallsTest, KnowsNoCounterpartOfWhatOnly32BitProgramsHave) {
  EXPECT_EQ(TranslateCompatCall(7, 0), std::nullopt);    // waitpid
  EXPECT_EQ(TranslateCompatCall(17, 0), std::nullopt);   // break
  EXPECT_EQ(TranslateCompatCall(117, 0), std::nullopt);  // ipc
  EXPECT_EQ(TranslateCompatCall(403, 0), std::nullopt);  // clock_gettime64
  EXPECT_EQ(TranslateCompatCall(511, 0), 511U);
  EXPECT_EQ(TranslateCompatCall(512, 0), std::nullopt);
  EXPECT_EQ(TranslateCompatCall(0xffffffff, 0), std::nullopt);
}

}  // namespace
}  // namespace zagent::audit::internal
