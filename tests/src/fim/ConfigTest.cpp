#include "src/fim/Config.h"

#include <gtest/gtest.h>

#include <regex>
#include <stdexcept>

#include "tests/src/fim/TestConfig.h"

namespace zagent::fim {
namespace {

std::string ErrorOf(const std::string& section) {
  const common::CommonConfig common(Json(TestCommonSection("https://x")).Value());
  try {
    const Config config(common, Json(section).Value());
    return "";
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
}

TEST(FimConfigTest, EverySettingOfTheSectionIsReadable) {
  TestSection section;
  section.manifests = {"/etc/fim.json", "/etc/more.json"};
  const auto config = MakeConfig(section);
  EXPECT_EQ(config->GetUploadInterval(), 60U);
  EXPECT_EQ(config->GetMaxFileSizeKb(), 100U);
  EXPECT_EQ(config->GetMaxFileAgeSec(), 600U);
  EXPECT_EQ(config->GetMaxDiskSizeMb(), 10U);
  EXPECT_EQ(config->GetEventFilePath(), "events");
  EXPECT_EQ(config->GetEventFileName(), "fim");
  const std::vector<Config::ManifestEntry> expected = {{"/etc/fim.json", "default"}, {"/etc/more.json", "default"}};
  EXPECT_EQ(config->GetManifests(), expected);
}

TEST(FimConfigTest, AMissingKeyRejectsTheWholeSection) {
  const std::string text = TestSection().Text();
  ASSERT_EQ(ErrorOf(text), "");
  for (const char* key : {"upload_interval", "service_url", "max_file_size_kb", "max_file_age_sec", "max_disk_size_mb",
                          "manifests", "event_file_path", "event_file_name"}) {
    const std::string without = std::regex_replace(text, std::regex(std::string("\"") + key + "\""), "\"other\"");
    EXPECT_EQ(ErrorOf(without), "Fim::Config: Invalid json") << key;
  }
}

TEST(FimConfigTest, AWrongTypeRejectsTheWholeSection) {
  const std::string text = TestSection().Text();
  const auto with = [&](const char* from, const char* to) {
    return ErrorOf(std::regex_replace(text, std::regex(from), to));
  };
  EXPECT_EQ(with(R"("upload_interval":60)", R"("upload_interval":-1)"), "Fim::Config: Invalid json");
  EXPECT_EQ(with(R"("upload_interval":60)", R"("upload_interval":4294967296)"), "Fim::Config: Invalid json");
  EXPECT_EQ(with(R"("max_file_size_kb":100)", R"("max_file_size_kb":"100")"), "Fim::Config: Invalid json");
  EXPECT_EQ(with(R"("event_file_name":"fim")", R"("event_file_name":1)"), "Fim::Config: Invalid json");
  EXPECT_EQ(with(R"("manifests":\[\])", R"("manifests":{})"), "Fim::Config: Invalid json");
  EXPECT_EQ(with(R"("manifests":\[\])", R"("manifests":["/etc/fim.json"])"), "Fim::Config: Invalid json");
  EXPECT_EQ(with(R"("manifests":\[\])", R"("manifests":[{"manifest_path":"/m"}])"), "Fim::Config: Invalid json");
  EXPECT_EQ(ErrorOf("[]"), "Fim::Config: Invalid json");
}

TEST(FimConfigTest, AnEventFileNameWithASlashIsInvalid) {
  TestSection section;
  section.event_file_name = "../events";
  EXPECT_EQ(ErrorOf(section.Text()), "Fim::Config: Invalid json");
}

TEST(FimConfigTest, AnUploadUrlOfAForeignSchemeIsInvalid) {
  const std::string text = TestSection().Text();
  const auto with = [&](const std::string& url) {
    return ErrorOf(std::regex_replace(text, std::regex(R"("service_url":"[^"]*")"), R"("service_url":")" + url + "\""));
  };
  for (const char* url : {"file:///etc/passwd", "ftp://x/y", "HTTPX://x", "ws://x/"}) {
    EXPECT_EQ(with(url), "Fim::Config: Invalid json") << url;
  }
  for (const char* url : {"http://x/y", "HTTPS://x/y", "", "/y", "ftp:/y", "a b://x"}) EXPECT_EQ(with(url), "") << url;
}

TEST(FimConfigTest, UpdateTellsWhetherAnythingChanged) {
  TestSection section;
  const auto config = MakeConfig(section);
  EXPECT_FALSE(config->Update(Json(section.Text()).Value()));
  section.upload_interval = 61;
  EXPECT_TRUE(config->Update(Json(section.Text()).Value()));
  EXPECT_EQ(config->GetUploadInterval(), 61U);
  section.manifests = {"/etc/fim.json"};
  EXPECT_TRUE(config->Update(Json(section.Text()).Value()));
  EXPECT_FALSE(config->Update(Json(section.Text()).Value()));
}

TEST(FimConfigTest, ARejectedUpdateLeavesTheOldValuesInForce) {
  const auto config = MakeConfig({});
  try {
    config->Update(Json(R"({"upload_interval":5})").Value());
    FAIL() << "an incomplete section was taken";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "Fim::Config::Update: Invalid json");
  }
  EXPECT_EQ(config->GetUploadInterval(), 60U);
}

TEST(FimConfigTest, UploadUrlsAreJoinedWithExactlyOneSlash) {
  const auto joined = [](const std::string& base, const std::string& path) {
    TestSection section;
    section.service_url = path;
    return MakeConfig(section, base)->GetUploadUrl();
  };
  EXPECT_EQ(joined("https://p.example", "/fim/events"), "https://p.example/fim/events");
  EXPECT_EQ(joined("https://p.example/", "/fim/events"), "https://p.example/fim/events");
  EXPECT_EQ(joined("https://p.example", "fim/events"), "https://p.example/fim/events");
  EXPECT_EQ(joined("https://p.example/api/", "fim?next=http://x"), "https://p.example/api/fim?next=http://x");
}

TEST(FimConfigTest, AnAbsoluteUploadUrlIsTakenAsItIs) {
  TestSection section;
  section.service_url = "https://elsewhere.example/fim";
  EXPECT_EQ(MakeConfig(section)->GetUploadUrl(), "https://elsewhere.example/fim");
}

}  // namespace
}  // namespace zagent::fim
