#include "common/src/http/RequestTarget.h"

#include <gtest/gtest.h>

namespace zagent::common {
namespace {

TEST(RequestTargetTest, KeepsWhatWasConfigured) {
  for (const char* target : {"/v1/fim", "/a%2Fb//c/../d/./e", "/a?x=%20+&y=//&z=%2f", "/%41%ff%zz", "/a?b?c=d",
                             "/~a!$&'()*,;=:@\"<>\\^`{|}"}) {
    EXPECT_EQ(target, RequestTarget(std::string("https://platform.example") + target));
  }
}

TEST(RequestTargetTest, EncodesBlanksControlsAndNonAsciiBytes) {
  EXPECT_EQ("/with%20space?q=%20%C3%A4%09%7F", RequestTarget("https://p/with space?q= \xc3\xa4\t\x7f"));
  EXPECT_EQ("/%00", RequestTarget(std::string("https://p/\0", 11)));
}

TEST(RequestTargetTest, HasASlashForAnEmptyPathAndNoFragment) {
  EXPECT_EQ("/", RequestTarget("https://p"));
  EXPECT_EQ("/", RequestTarget("https://p?"));
  EXPECT_EQ("/a", RequestTarget("https://p/a?#x"));
  EXPECT_EQ("/a??", RequestTarget("https://p/a??"));
  EXPECT_EQ("/?x=1", RequestTarget("https://p?x=1#/fragment?y"));
  EXPECT_EQ("/", RequestTarget("https://p#/fragment"));
  EXPECT_EQ("https://p:8443/?x=1", UrlAsSent("https://p:8443?x=1#f"));
}

TEST(RequestTargetTest, ChangesNothingTheSecondTime) {
  for (const char* url : {"https://p?a b", "http://[::1]:80/\xff#x", "https://user:pass@p/%zz //.."}) {
    EXPECT_EQ(UrlAsSent(url), UrlAsSent(UrlAsSent(url)));
  }
}

TEST(RequestTargetTest, RefusesWhatIsNoAbsoluteUrl) {
  for (const char* url : {"", "/path", "platform.example/v1", "://p/", "https://", "https:///v1", "https://:443/",
                          "https://p:port/", "https://p:123456/", "https://user@/v1", "https://[::1]x:y/"}) {
    try {
      (void)RequestTarget(url);
      ADD_FAILURE() << url;
    } catch (const InvalidUrlException& error) {
      EXPECT_EQ(std::string("Invalid URL: ") + url, error.what());
    }
  }
}

}  // namespace
}  // namespace zagent::common
