#include "src/ioc/protobuf/KnownPaths.h"

#include <gtest/gtest.h>

#include <string>

#include "src/ioc/protobuf/IocEvents.pb.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

using Message = com::ostrel::ioc::model::proto::event::FileEvent;

Message MessageOf(const KnownPaths::Path& path) {
  Message message;
  EXPECT_TRUE(message.ParseFromString(path.fields));
  return message;
}

TEST(KnownPathsTest, APathIsToldByItsNameItsDirectoryAndTheirIds) {
  KnownPaths paths;
  const KnownPaths::Path& path = paths.Of("/srv/.old/report.tar.gz");
  EXPECT_EQ(path.id, UniquePathId("/srv/.old/report.tar.gz"));
  EXPECT_EQ(path.parent, "/srv/.old");
  EXPECT_EQ(path.parent_id, UniquePathId("/srv/.old"));
  const Message message = MessageOf(path);
  EXPECT_EQ(message.uniqueid(), path.id);
  EXPECT_EQ(message.parentdirectoryid(), path.parent_id);
  EXPECT_EQ(message.filename(), "report.tar.gz");
  EXPECT_EQ(message.extension(), "gz");
  EXPECT_EQ(message.fullpath(), "/srv/.old/report.tar.gz");
}

TEST(KnownPathsTest, SomePathsHaveNoExtensionAndSomeNoDirectory) {
  KnownPaths paths;
  EXPECT_EQ(MessageOf(paths.Of("/srv/.profile")).extension(), "") << "hidden";
  EXPECT_EQ(MessageOf(paths.Of("/srv.d/file")).extension(), "");
  EXPECT_EQ(paths.Of("/file").parent, "/");
  for (const char* path : {"", "file", "srv/file", "/srv/"}) EXPECT_EQ(paths.Of(path).parent, "") << path;
}

TEST(KnownPathsTest, WhatIsNoTextIsRepairedAndNamedByItsBytes) {
  KnownPaths paths;
  const std::string id = paths.Of("/srv/\xff.\xfe").id;
  EXPECT_NE(paths.Of("/srv/\xfe.\xff").id, id);
  const Message message = MessageOf(paths.Of("/srv/\xff.\xfe"));
  EXPECT_EQ(message.fullpath(), "/srv/\xEF\xBF\xBD.\xEF\xBF\xBD");
  EXPECT_EQ(message.filename(), "\xEF\xBF\xBD.\xEF\xBF\xBD");
  EXPECT_EQ(message.extension(), "\xEF\xBF\xBD");
}

TEST(KnownPathsTest, AnAnswerIsTheSameHoweverManyPathsAreAskedFor) {
  KnownPaths paths;
  const auto path = [](std::size_t number) { return "/srv/" + std::to_string(number) + ".txt"; };
  for (int round = 0; round < 2; ++round) {
    for (std::size_t i = 0; i < KnownPaths::kMaxPaths + 10; ++i) {
      ASSERT_EQ(MessageOf(paths.Of(path(i))).fullpath(), path(i));
      ASSERT_EQ(MessageOf(paths.Of(path(0))).fullpath(), path(0)) << "after " << i;
    }
    EXPECT_EQ(paths.GetSize(), KnownPaths::kMaxPaths);
  }
}

TEST(KnownPathsTest, ALongPathIsToldAndNotRemembered) {
  KnownPaths paths;
  const std::string longest = "/" + std::string(KnownPaths::kMaxText - 1, 'a');
  EXPECT_EQ(MessageOf(paths.Of(longest + "a")).fullpath(), longest + "a");
  EXPECT_EQ(paths.GetSize(), 0U);
  EXPECT_EQ(MessageOf(paths.Of(longest)).fullpath(), longest);
  EXPECT_EQ(paths.GetSize(), 1U);
  EXPECT_EQ(MessageOf(paths.Of(longest + "b")).fullpath(), longest + "b");
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
