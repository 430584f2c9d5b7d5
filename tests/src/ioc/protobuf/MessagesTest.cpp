#include "src/ioc/protobuf/Messages.h"

#include <gtest/gtest.h>

#include <vector>

namespace zagent::ioc::internal::protobuf {
namespace {

common::ImageInfo Image(std::uint32_t owner, std::uint32_t group, std::uint32_t permission,
                        const std::string& owner_name, const std::string& group_name) {
  return {"08:01", permission, 1, "/srv/w/a", group, group_name, owner_name, owner, ""};
}

TEST(LatestSettingsTest, EachObjectHasItsOwnWhateverWasAskedBefore) {
  const std::vector<common::ImageInfo> images = {Image(1, 2, 644, "alice", "staff"), Image(2, 1, 644, "alice", "staff"),
                                                 Image(1, 644, 2, "alice", "staff"), Image(1, 2, 644, "bob", "staff"),
                                                 Image(1, 2, 644, "alice", "users"), Image(644, 2, 1, "alice", "staff"),
                                                 Image(1, 18, 644, "alice", "staff")};
  LatestSettings latest;
  for (const common::ImageInfo& one : images) {
    for (const common::ImageInfo& other : images) {
      EXPECT_EQ(latest.Of(one), SecuritySettings(one));
      EXPECT_EQ(latest.Of(other), SecuritySettings(other));
      EXPECT_EQ(latest.Of(other), SecuritySettings(other));
    }
    EXPECT_EQ(latest.Of(common::ImageInfo("/srv/w/a")), "") << "only its path is known";
  }
}

TEST(SetRepairedTest, ATextTakesThePlaceOfAnother) {
  std::string text = "what was there before";
  SetRepaired("/srv", text);
  EXPECT_EQ(text, "/srv");
  SetRepaired("/\xc3\xa4/\xff", text);
  EXPECT_EQ(text, "/\xc3\xa4/\xef\xbf\xbd");
  SetRepaired(std::string_view("a\0b", 3), text);
  EXPECT_EQ(text, std::string("a\0b", 3));
  SetRepaired("", text);
  EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
