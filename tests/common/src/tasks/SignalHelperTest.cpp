#include "common/src/tasks/SignalHelper.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace zagent::common {
namespace {

volatile std::sig_atomic_t g_received = 0;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

void Receive(int signal) {
  g_received = signal;
}

bool IsBlocked(int signal) {
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, signal) == 1;
}

class SignalHelperTest : public ::testing::Test {
 protected:
  SignalHelperTest() {
    g_received = 0;
    sigaction(SIGUSR1, nullptr, &old_);
  }
  ~SignalHelperTest() override { sigaction(SIGUSR1, &old_, nullptr); }

  struct sigaction old_ {};
};

TEST_F(SignalHelperTest, InstallsAHandlerWithAnEmptyMaskAndNoFlags) {
  SignalHelper::Instance().Register(SIGUSR1, Receive);
  struct sigaction now {};
  sigaction(SIGUSR1, nullptr, &now);
  EXPECT_EQ(now.sa_handler, &Receive);
  EXPECT_EQ(now.sa_flags & (SA_RESTART | SA_SIGINFO | SA_RESETHAND | SA_NODEFER), 0);
  EXPECT_EQ(sigismember(&now.sa_mask, SIGTERM), 0);
  raise(SIGUSR1);
  EXPECT_EQ(g_received, SIGUSR1);
}

TEST_F(SignalHelperTest, RefusesANullHandler) {
  try {
    SignalHelper::Instance().Register(SIGUSR1, nullptr);
    FAIL() << "nothing was thrown";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "null signal handler supplied");
  }
}

TEST_F(SignalHelperTest, SaysWhenASignalTakesNoHandler) {
  EXPECT_THROW(SignalHelper::Instance().Register(SIGKILL, Receive), std::system_error);
  EXPECT_THROW(SignalHelper::Instance().Block({100'000}), std::system_error);
}

TEST_F(SignalHelperTest, WhatIsBlockedAlreadyStaysSo) {
  std::thread([&] {
    SignalHelper::Instance().Block({SIGUSR1});
    SignalHelper::Instance().Block({SIGUSR2});
    EXPECT_TRUE(IsBlocked(SIGUSR1));
    EXPECT_TRUE(IsBlocked(SIGUSR2));
  }).join();
}

TEST_F(SignalHelperTest, BlocksForTheCallingThreadAndThoseItMakes) {
  SignalHelper::Instance().Register(SIGUSR1, Receive);
  std::thread([&] {
    SignalHelper::Instance().Block({SIGUSR1, SIGUSR2});
    EXPECT_TRUE(IsBlocked(SIGUSR1));
    EXPECT_TRUE(IsBlocked(SIGUSR2));
    EXPECT_FALSE(IsBlocked(SIGTERM));
    std::thread([] { EXPECT_TRUE(IsBlocked(SIGUSR1)); }).join();
    raise(SIGUSR1);
    EXPECT_EQ(g_received, 0);
    SignalHelper::Instance().Unblock({SIGUSR1});
    EXPECT_EQ(g_received, SIGUSR1);
    EXPECT_TRUE(IsBlocked(SIGUSR2));
  }).join();
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

}  // namespace
}  // namespace zagent::common
