#include "src/audit/routing/ContainerCheck.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/FakeProcessInfo.h"

namespace zagent::audit::internal {
namespace {

class ContainerCheckTest : public ::testing::Test {
 protected:
  [[nodiscard]] bool IsContainer(std::int32_t pid, const std::string& image = "/bin/sh") const {
    fakes::FakeEvent event;
    event.pid = pid;
    event.image = common::ImageInfo(image);
    return check_.IsContainerProcess(event);
  }
  void AddProcess(std::int32_t pid, std::int32_t ppid, const std::string& image) {
    tree_.Add(std::make_unique<fakes::FakeProcessInfo>(pid, ppid, image));
  }

  fakes::FakeProcFs processes_;
  common::ProcessTree tree_;
  ImageProof proof_{0, processes_.Root()};
  ContainerCheck check_{tree_, proof_};
};

TEST_F(ContainerCheckTest, KnowsEveryRuntimeInEverySystemFolder) {
  for (const char* name :
       {"containerd-shim", "containerd-shim-runc-v1", "containerd-shim-runc-v2", "crio", "conmon", "kubelet"}) {
    for (const char* folder : {"/usr/bin/", "/usr/sbin/", "/usr/local/bin/", "/usr/local/sbin/", "/usr/libexec/"}) {
      EXPECT_TRUE(IsContainer(7, std::string(folder) + name)) << folder << name;
    }
  }
}

TEST_F(ContainerCheckTest, TakesNoProgramOfThatNameElsewhereForOne) {
  EXPECT_FALSE(IsContainer(7, "/tmp/containerd-shim"));
  EXPECT_FALSE(IsContainer(7, "/usr/bin/sub/crio"));
  EXPECT_FALSE(IsContainer(7, "/bin/crio"));
  EXPECT_FALSE(IsContainer(7, "/usr/bin/sh"));
  EXPECT_FALSE(IsContainer(7, "crio"));
}

TEST_F(ContainerCheckTest, KnowsWhatARuntimeHasStarted) {
  AddProcess(10, -1, "/usr/bin/containerd-shim-runc-v2");
  AddProcess(11, 10, "/bin/sh");
  AddProcess(12, 11, "/bin/cp");
  AddProcess(20, -1, "/bin/sh");
  EXPECT_TRUE(IsContainer(12));
  EXPECT_FALSE(IsContainer(20, "/usr/bin/crio")) << "the tree knows better than the event";
}

TEST_F(ContainerCheckTest, DoesNotBelieveAProgramThatIsMountedOverARuntime) {
  processes_.Start(7, 100, "/bin/sh");
  EXPECT_FALSE(IsContainer(7, "/usr/bin/crio"));
}

TEST_F(ContainerCheckTest, CopesWithAProcessWithoutImage) {
  fakes::FakeEvent event;
  event.image.reset();
  EXPECT_FALSE(check_.IsContainerProcess(event));
}

}  // namespace
}  // namespace zagent::audit::internal
