// What HashGenerator says when a call fails that hardly ever does. The calls stand here in front of the libraries' own,
// which they pass everything on to but what a test wants to fail.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "common/src/util/HashGenerator.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"

namespace {

thread_local std::string_view failing_call;

bool Fails(std::string_view call) {
  return failing_call == call;
}

template <typename Function>
Function* Real(Function* /*type*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

int FailWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

extern "C" {

int fstat(int fd, struct stat* result) noexcept {
  static const auto real = Real(&fstat, "fstat");
  return Fails("fstat") ? FailWith(EIO) : real(fd, result);
}

int lstat(const char* path, struct stat* result) noexcept {
  static const auto real = Real(&lstat, "lstat");
  return Fails("lstat") ? FailWith(EIO) : real(path, result);
}

ssize_t read(int fd, void* buffer, size_t size) {
  static const auto real = Real(&read, "read");
  return Fails("read") ? FailWith(EIO) : real(fd, buffer, size);
}

EVP_MD_CTX* EVP_MD_CTX_new(void) {
  static const auto real = Real(&EVP_MD_CTX_new, "EVP_MD_CTX_new");
  return Fails("EVP_MD_CTX_new") ? nullptr : real();
}

int EVP_DigestInit(EVP_MD_CTX* context, const EVP_MD* type) {
  static const auto real = Real(&EVP_DigestInit, "EVP_DigestInit");
  return Fails("EVP_DigestInit") ? 0 : real(context, type);
}

int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, size_t size) {
  static const auto real = Real(&EVP_DigestUpdate, "EVP_DigestUpdate");
  return Fails("EVP_DigestUpdate") ? 0 : real(context, data, size);
}

int EVP_DigestFinal(EVP_MD_CTX* context, unsigned char* digest, unsigned* size) {
  static const auto real = Real(&EVP_DigestFinal, "EVP_DigestFinal");
  return Fails("EVP_DigestFinal") ? 0 : real(context, digest, size);
}

}  // extern "C"

namespace zagent::common::util {
namespace {

class HashGeneratorFailuresTest : public ::testing::Test {
 protected:
  // What the generator throws when the call fails.
  std::string FailureOf(std::string_view call) {
    failing_call = call;
    std::string text =
        fakes::WhatOf<HashGeneratorException>([&] { const HashGenerator generator(path_, "", 0, HashKind::All); });
    failing_call = {};
    return text;
  }

  fakes::TempFolder folder_;
  std::string path_ = folder_.Write("f", "abc");
};

TEST_F(HashGeneratorFailuresTest, WithoutAFailureThereAreDigests) {
  EXPECT_EQ(HashGenerator(path_, "", 0, HashKind::Md5).GetMd5().size(), 16U);
}

TEST_F(HashGeneratorFailuresTest, ADescriptorThatCannotBeLookedAt) {
  EXPECT_EQ(FailureOf("fstat"), "Failed to fstat file at " + path_);
}

TEST_F(HashGeneratorFailuresTest, APathThatCannotBeLookedAt) {
  EXPECT_EQ(FailureOf("lstat"), "Failed to lstat file at " + path_);
}

TEST_F(HashGeneratorFailuresTest, AFileThatCannotBeRead) {
  EXPECT_EQ(FailureOf("read"), "Error reading file '" + path_ + "' for generating hashes: Input/output error (5)");
}

TEST_F(HashGeneratorFailuresTest, NoDigestContext) {
  EXPECT_EQ(FailureOf("EVP_MD_CTX_new"), "Failed to create hash contexts for " + path_);
}

TEST_F(HashGeneratorFailuresTest, ADigestThatCannotBegin) {
  EXPECT_EQ(FailureOf("EVP_DigestInit"), "Failed to initialize hash contexts for " + path_);
}

TEST_F(HashGeneratorFailuresTest, ADigestThatCannotGoOn) {
  EXPECT_EQ(FailureOf("EVP_DigestUpdate"), "Failed to update hashes for " + path_);
}

TEST_F(HashGeneratorFailuresTest, ADigestThatCannotEnd) {
  EXPECT_EQ(FailureOf("EVP_DigestFinal"), "Failed to finalize hashes for " + path_);
}

}  // namespace
}  // namespace zagent::common::util
