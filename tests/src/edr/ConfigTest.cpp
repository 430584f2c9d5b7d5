#include "src/edr/Config.h"

#include <gtest/gtest.h>

namespace zagent::edr {
namespace {

rapidjson::Document Json(const char* text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  return document;
}

constexpr const char* kPlain = R"({"audit_backlog_limit": 8192, "cpu_limit": 25, "memory_limit": 10})";

TEST(EdrConfigTest, ReadsTheLimits) {
  const Config config(Json(kPlain));
  EXPECT_EQ(config.GetAuditBacklogLimit(), 8192U);
  EXPECT_EQ(config.GetCpuLimit(), 25U);
  EXPECT_EQ(config.GetMemoryLimit(), 10U);
}

TEST(EdrConfigTest, AnAbsentAndAnEmptyDispatcherPathBothMeanNone) {
  EXPECT_FALSE(Config(Json(kPlain)).HasDispatcherSocketPath());
  EXPECT_FALSE(Config(Json(R"({"audit_backlog_limit": 1, "cpu_limit": 2, "memory_limit": 3,
                              "dispatcher_socket_path": ""})"))
                   .HasDispatcherSocketPath());
  const Config with(Json(R"({"audit_backlog_limit": 1, "cpu_limit": 2, "memory_limit": 3,
                            "dispatcher_socket_path": "/run/d"})"));
  EXPECT_TRUE(with.HasDispatcherSocketPath());
  EXPECT_EQ(with.GetDispatcherSocketPath(), "/run/d");
}

TEST(EdrConfigTest, CoverageIsExtendedOnlyWhenAskedFor) {
  EXPECT_FALSE(Config(Json(kPlain)).HasExtendedCoverage());
  Config config(Json(R"({"audit_backlog_limit": 8192, "cpu_limit": 25, "memory_limit": 10,
                         "extended_coverage": true})"));
  EXPECT_TRUE(config.HasExtendedCoverage());
  EXPECT_TRUE(config.Update(Json(kPlain)));
  EXPECT_FALSE(config.HasExtendedCoverage());
}

TEST(EdrConfigTest, RefusesMissingAndWronglyTypedKeys) {
  for (const char* text :
       {"[]", "{}", R"({"cpu_limit": 2, "memory_limit": 3})", R"({"audit_backlog_limit": 1, "memory_limit": 3})",
        R"({"audit_backlog_limit": 1, "cpu_limit": 2})",
        R"({"audit_backlog_limit": -1, "cpu_limit": 2, "memory_limit": 3})",
        R"({"audit_backlog_limit": 1, "cpu_limit": "2", "memory_limit": 3})",
        R"({"audit_backlog_limit": 1, "cpu_limit": 2, "memory_limit": 3, "dispatcher_socket_path": 4})",
        R"({"audit_backlog_limit": 1, "cpu_limit": 2, "memory_limit": 3, "extended_coverage": "yes"})"}) {
    try {
      const Config config(Json(text));
      ADD_FAILURE() << text;
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "EDR::Config: Invalid json");
    }
  }
}

TEST(EdrConfigTest, UpdateTellsWhetherAnythingChanged) {
  Config config(Json(kPlain));
  EXPECT_FALSE(config.Update(Json(kPlain)));
  EXPECT_TRUE(config.Update(Json(R"({"audit_backlog_limit": 8192, "cpu_limit": 26, "memory_limit": 10})")));
  EXPECT_EQ(config.GetCpuLimit(), 26U);
}

TEST(EdrConfigTest, ARejectedUpdateLeavesTheOldValues) {
  Config config(Json(kPlain));
  try {
    config.Update(Json(R"({"audit_backlog_limit": 1, "cpu_limit": 2})"));
    ADD_FAILURE();
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "EDR::Config::Update: Invalid json");
  }
  EXPECT_EQ(config.GetAuditBacklogLimit(), 8192U);
}

}  // namespace
}  // namespace zagent::edr
