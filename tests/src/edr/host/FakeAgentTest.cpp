#include <gtest/gtest.h>
#include <unistd.h>

#include "common/src/config/CommonConfig.h"
#include "src/edr/Config.h"
#include "src/edr/host/ConfigDocument.h"
#include "src/edr/host/ControlLink.h"
#include "src/fim/Config.h"
#include "tests/fakes/FakeAgentIOChannel.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr::host {
namespace {

TEST(FakeAgentTest, ItsCommandNamesAConfigurationThatEverySectionTakes) {
  const fakes::TempFolder folder;
  ExitFlag exit_flag{false};
  ControlLink link(exit_flag);
  fakes::FakeAgentIOChannel agent(folder / "edr.conf");
  agent.SetReadCallback([&link](audit::IOChannel::Bytes&& message) { link.OnMessage(std::move(message)); });
  agent.Start();

  const auto lock = link.Lock();
  const auto command = Command::Parse(link.TakeMessage());
  ASSERT_TRUE(command);
  EXPECT_EQ(command->word, "config");
  ASSERT_EQ(command->config_file, folder / "edr.conf");
  const ConfigDocument document = ConfigDocument::Read(*command->config_file);
  const common::CommonConfig common(document.GetSection("common_config"));
  EXPECT_EQ(common.GetHmacVersion(), "V2");
  EXPECT_TRUE(fim::Config(common, document.GetSection("fim_config")).GetManifests().empty());
  EXPECT_EQ(Config(document.GetSection("edr_config")).GetAuditBacklogLimit(), 8192U);
  EXPECT_TRUE(document.HasSection("ioc_config"));
  ASSERT_TRUE(document.GetAgentIdentity());
  EXPECT_EQ(document.GetAgentIdentity()->pid, getppid());
  EXPECT_EQ(document.GetAgentIdentity()->path, "/usr/local/ostrel/host-warden/bin/ostrel-host-warden");
  agent.Stop();
}

TEST(FakeAgentTest, AFileThatCannotBeWrittenIsNoSilentAgent) {
  fakes::FakeAgentIOChannel agent("/no/such/folder/edr.conf");
  EXPECT_THROW(agent.Start(), std::runtime_error);
}

}  // namespace
}  // namespace zagent::edr::host
