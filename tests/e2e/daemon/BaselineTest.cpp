// The baseline of a file: once over restarts and kills, and again where a kill took it from memory.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/e2e/daemon/DaemonTest.h"

namespace zagent::e2e {
namespace {

class BaselineTest : public DaemonTest {
 protected:
  BaselineTest() {
    config_.WriteManifest(R"({"data": {"fim": {"policyVersion": "1.0", "collectHashes": true, "rules": [
      {"ruleId": "watched-folder", "ruleType": "directory", "imagePath": ")" +
                          config_.Watched() + R"(", "recursiveDepth": "all", "notify": ["create"],
       "trackContentChange": true}]}}})");
    std::ofstream(File()) << "abc";
  }

  [[nodiscard]] std::string File() const { return config_.Watched() + "/tracked"; }
  // How often the spool has a text. Nobody listens where the daemon uploads to, so that everything stays.
  [[nodiscard]] int InSpool(const std::string& text) const {
    int count = 0;
    for (const auto& file : std::filesystem::directory_iterator(config_.Spool())) {
      std::ifstream in(file.path());
      const std::string all(std::istreambuf_iterator<char>(in), {});
      for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
    }
    return count;
  }
  [[nodiscard]] int Baselines() const { return InSpool(R"("eventAction":"Baseline")"); }
  [[nodiscard]] int Creates() const { return InSpool(R"("eventAction":"Create")"); }

  // An event of the file that rests when the daemon is told to end, and is delivered then.
  void CreateAndEnd() {
    StartDaemon();
    audit_->CreatedFile(File());
    ASSERT_TRUE(LogComesToHold("RuleEngine::ProcessEvent: Procesing event with ID"));
    agent_->Send(R"({"command": "exit"})");
    ExpectOrderlyEnd();
    agent_.reset();
  }
  // An event of the file that has rested, and a kill once the log says this.
  void CreateAndKill(const std::string& sign) {
    StartDaemon();
    audit_->CreatedFile(File());
    ASSERT_TRUE(LogComesToHold(sign, 60s));
    daemon_->Signal(SIGKILL);
    EXPECT_EQ(daemon_->WaitForExit(), 128 + SIGKILL);
    agent_.reset();
    std::filesystem::remove(config_.Folder() / "log/edr.log");  // the next start is judged by its own
  }
};

TEST_F(BaselineTest, AFileHasItsBaselineBeforeItsFirstEventAndNoneAfterARestart) {
  CreateAndEnd();
  EXPECT_EQ(Baselines(), 1);
  EXPECT_EQ(Creates(), 1);
  EXPECT_EQ(InSpool(R"("fileContent":"YWJj","contentStatus":"READ_SUCCESSFUL")"), 2);
  EXPECT_EQ(InSpool("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"), 2);
  std::filesystem::remove(config_.Folder() / "log/edr.log");
  CreateAndEnd();
  EXPECT_EQ(Baselines(), 1);
  EXPECT_EQ(Creates(), 2);
}

TEST_F(BaselineTest, ABaselineThatIsInAFileOfTheSpoolSurvivesAKill) {
  CreateAndKill("Baseline: Remembered 1 files");
  EXPECT_EQ(Baselines(), 1);
  CreateAndEnd();
  EXPECT_EQ(Baselines(), 1);
  EXPECT_EQ(Creates(), 2);
}

TEST_F(BaselineTest, ABaselineThatAKillTookFromMemoryComesAgain) {
  config_.Json()["fim_config"]["max_file_age_sec"].SetUint(600);
  config_.Write();
  CreateAndKill("Event json written to disc successfully");
  EXPECT_EQ(Baselines(), 0);
  CreateAndEnd();
  EXPECT_EQ(Baselines(), 1);
}

}  // namespace
}  // namespace zagent::e2e
