// The worked examples of docs/PROTOCOL.md, recomputed: who writes a receiver by that page must not be led astray.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "common/src/http/HmacConfig.h"
#include "common/src/util/Base64.h"
#include "common/src/util/Hmac.h"
#include "tests/fakes/TestData.h"

namespace zagent::common {
namespace {

class ProtocolPageTest : public ::testing::Test {
 protected:
  ProtocolPageTest() {
    std::ifstream page(fakes::SourceTree() / "docs/PROTOCOL.md");
    for (std::string line; std::getline(page, line);) lines_.push_back(line);
  }

  // What stands behind a label at the beginning of an indented line; the first line that has it.
  [[nodiscard]] std::string Example(const std::string& label) const {
    for (const std::string& line : lines_) {
      if (line.starts_with("    " + label)) return ValueOf(line, label);
    }
    ADD_FAILURE() << "the page has no example of " << label;
    return "";
  }
  static std::string ValueOf(const std::string& line, const std::string& label) {
    const std::size_t value = line.find_first_not_of(' ', 4 + label.size());
    return value == std::string::npos ? "" : line.substr(value);
  }

  std::vector<std::string> lines_;
};

TEST_F(ProtocolPageTest, DerivesTheSecretsThatItShows) {
  const auto keys = DeriveKeys(Example("customer id"), Example("agent id"), Example("activation id"));
  EXPECT_EQ(Example("secret 1"), keys->Get("HmacV1"));
  EXPECT_EQ(Example("secret 2"), keys->Get("HmacV2"));
}

TEST_F(ProtocolPageTest, SignsItsMessagesAsItShows) {
  int checked = 0;
  for (std::size_t i = 0; i + 1 < lines_.size(); ++i) {
    constexpr const char* kHeader = "X-OSTL-Authorization:";
    if (!lines_[i].starts_with("    message ") || !lines_[i + 1].starts_with(std::string("    ") + kHeader)) continue;
    const std::string authorization = ValueOf(lines_[i + 1], kHeader);
    const bool is_v1 = authorization.starts_with("ZHmacV1Auth ");
    if (!is_v1 && !authorization.starts_with("ZHmacV2Auth ")) continue;
    const std::string secret = Example(is_v1 ? "secret 1" : "secret 2");
    EXPECT_EQ(std::string(is_v1 ? "ZHmacV1Auth " : "ZHmacV2Auth ") + Example("agent id") + ":" +
                  util::Base64Encode(util::HmacSha256(secret, ValueOf(lines_[i], "message"))),
              authorization);
    ++checked;
  }
  EXPECT_EQ(4, checked);
}

}  // namespace
}  // namespace zagent::common
