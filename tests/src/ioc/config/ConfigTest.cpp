#include "src/ioc/config/Config.h"

#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>

#include "tests/src/ioc/config/TestConfig.h"

namespace zagent::ioc {
namespace {

std::string ErrorOf(const std::string& section) {
  try {
    const auto common = MakeCommonConfig();
    const Config config(*common, ParsedJson(section));
    return "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

class IocConfigTest : public testing::Test {
 protected:
  bool Update() { return config_.Update(ParsedJson(section_.Text())); }

  TestSection section_;
  std::unique_ptr<common::CommonConfig> common_ = MakeCommonConfig();
  Config config_{*common_, ParsedJson(section_.Text())};
};

TEST_F(IocConfigTest, EverySettingOfTheSectionIsReadable) {
  TestSection section;
  section.manifests = {"/etc/ioc.json", "/etc/more.json"};
  section.host_quarantined = true;
  const Config config(*common_, ParsedJson(section.Text()));
  EXPECT_EQ(config.GetUploadInterval(), 60U);
  EXPECT_EQ(config.GetMaxFileSizeKb(), 100U);
  EXPECT_EQ(config.GetMaxFileAgeSec(), 600U);
  EXPECT_EQ(config.GetMaxDiskSizeMb(), 10U);
  EXPECT_EQ(config.GetEventFilePath(), "events");
  EXPECT_EQ(config.GetEventFileName(), "ioc");
  EXPECT_EQ(config.GetServiceUrl(), "https://platform.example");
  EXPECT_TRUE(config.IsHostQuarantined());
  EXPECT_EQ(config.GetCommon().GetAgentId(), "a");
  const std::vector<Config::ManifestEntry> expected = {{"/etc/ioc.json", "default"}, {"/etc/more.json", "default"}};
  EXPECT_EQ(config.GetManifests(), expected);
}

TEST_F(IocConfigTest, AMissingKeyRejectsTheWholeSection) {
  const std::string text = section_.Text();
  ASSERT_EQ(ErrorOf(text), "");
  for (const char* key : {"event_file_name", "event_file_path", "manifests", "max_disk_size_mb", "max_file_age_sec",
                          "max_file_size_kb", "service_url", "upload_interval", "host_quarantined"}) {
    const std::string without = std::regex_replace(text, std::regex(std::string("\"") + key + "\""), "\"other\"");
    EXPECT_EQ(ErrorOf(without), "Ioc::Config: Invalid json") << key;
  }
}

TEST_F(IocConfigTest, AWrongTypeRejectsTheWholeSection) {
  const auto with = [&](const char* from, const char* to) {
    const std::string text = std::regex_replace(section_.Text(), std::regex(from), to);
    EXPECT_NE(text, section_.Text()) << from;
    return ErrorOf(text);
  };
  const char* const kError = "Ioc::Config: Invalid json";
  EXPECT_EQ(with(R"("upload_interval":60)", R"("upload_interval":-1)"), kError);
  EXPECT_EQ(with(R"("upload_interval":60)", R"("upload_interval":4294967296)"), kError);
  EXPECT_EQ(with(R"("upload_interval":60)", R"("upload_interval":1.5)"), kError);
  EXPECT_EQ(with(R"("max_file_size_kb":100)", R"("max_file_size_kb":"100")"), kError);
  EXPECT_EQ(with(R"("max_file_age_sec":600)", R"("max_file_age_sec":null)"), kError);
  EXPECT_EQ(with(R"("max_disk_size_mb":10)", R"("max_disk_size_mb":true)"), kError);
  EXPECT_EQ(with(R"("event_file_name":"ioc")", R"("event_file_name":1)"), kError);
  EXPECT_EQ(with(R"("event_file_path":"events")", R"("event_file_path":[])"), kError);
  EXPECT_EQ(with(R"("service_url":"[^"]*")", R"("service_url":0)"), kError);
  EXPECT_EQ(with(R"("host_quarantined":false)", R"("host_quarantined":0)"), kError);
  EXPECT_EQ(with(R"("host_quarantined":false)", R"("host_quarantined":"false")"), kError);
  EXPECT_EQ(with(R"("manifests":\[\])", R"("manifests":{})"), kError);
  EXPECT_EQ(with(R"("manifests":\[\])", R"("manifests":["/etc/ioc.json"])"), kError);
  EXPECT_EQ(with(R"("manifests":\[\])", R"("manifests":[{"manifest_path":"/m"}])"), kError);
  EXPECT_EQ(with(R"("manifests":\[\])", R"("manifests":[{"manifest_path":"/m","manifest_type":1}])"), kError);
  EXPECT_EQ(ErrorOf("[]"), kError);
  EXPECT_EQ(ErrorOf("{}"), kError);
}

TEST_F(IocConfigTest, AnEventFileNameWithASlashIsInvalid) {
  section_.event_file_name = "../events";
  EXPECT_EQ(ErrorOf(section_.Text()), "Ioc::Config: Invalid json");
}

TEST_F(IocConfigTest, UpdateTellsWhetherAnyValueThatItReplacesHasChanged) {
  EXPECT_FALSE(Update());
  const auto changes = [&](auto change) {
    change(section_);
    const bool changed = Update();
    EXPECT_FALSE(Update());
    return changed;
  };
  EXPECT_TRUE(changes([](TestSection& section) { section.upload_interval = 61; }));
  EXPECT_TRUE(changes([](TestSection& section) { section.max_file_size_kb = 101; }));
  EXPECT_TRUE(changes([](TestSection& section) { section.max_file_age_sec = 601; }));
  EXPECT_TRUE(changes([](TestSection& section) { section.max_disk_size_mb = 11; }));
  EXPECT_TRUE(changes([](TestSection& section) { section.host_quarantined = true; }));
  EXPECT_TRUE(changes([](TestSection& section) { section.manifests = {"/etc/ioc.json"}; }));
  EXPECT_EQ(config_.GetUploadInterval(), 61U);
  EXPECT_EQ(config_.GetMaxFileSizeKb(), 101U);
  EXPECT_EQ(config_.GetMaxFileAgeSec(), 601U);
  EXPECT_EQ(config_.GetMaxDiskSizeMb(), 11U);
  EXPECT_TRUE(config_.IsHostQuarantined());
  EXPECT_EQ(config_.GetManifests().size(), 1U);
}

TEST_F(IocConfigTest, WhatNamesTheSpoolAndThePlatformKeepsItsValue) {
  section_.event_file_path = "elsewhere";
  section_.event_file_name = "other";
  section_.service_url = "https://elsewhere.example";
  EXPECT_FALSE(Update());
  section_.upload_interval = 61;
  EXPECT_TRUE(Update());
  EXPECT_EQ(config_.GetEventFilePath(), "events");
  EXPECT_EQ(config_.GetEventFileName(), "ioc");
  EXPECT_EQ(config_.GetServiceUrl(), "https://platform.example");
}

TEST_F(IocConfigTest, AListOfManifestsInAnotherOrderIsTheSame) {
  section_.manifests = {"/a", "/b"};
  EXPECT_TRUE(Update());
  section_.manifests = {"/b", "/a"};
  EXPECT_FALSE(Update());
  section_.manifests = {"/b", "/b"};
  EXPECT_TRUE(Update());
  section_.manifests = {"/b", "/a"};
  EXPECT_TRUE(Update());
  section_.manifests = {"/b"};
  EXPECT_TRUE(Update());
}

TEST_F(IocConfigTest, ManifestsAreComparedByPathAndType) {
  EXPECT_TRUE(Config::AreSame({{"/a", "default"}}, {{"/a", "default"}}));
  EXPECT_FALSE(Config::AreSame({{"/a", "default"}}, {{"/a", "other"}}));
  EXPECT_FALSE(Config::AreSame({{"/a", "default"}}, {{"/b", "default"}}));
}

TEST_F(IocConfigTest, ARejectedUpdateLeavesTheOldValuesInForce) {
  try {
    config_.Update(ParsedJson(R"({"upload_interval":5})"));
    FAIL() << "an incomplete section was taken";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Ioc::Config::Update: Invalid json");
  }
  EXPECT_EQ(config_.GetUploadInterval(), 60U);
}

}  // namespace
}  // namespace zagent::ioc
