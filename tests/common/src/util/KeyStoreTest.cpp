#include "common/src/util/KeyStore.h"

#include <gtest/gtest.h>

#include "tests/fakes/LogCapture.h"

namespace zagent::common::util {
namespace {

class KeyStoreTest : public ::testing::Test {
 protected:
  template <typename Call>
  std::string ErrorOf(Call&& call) {
    try {
      call();
    } catch (const KeyStoreException& error) {
      return error.what();
    }
    return "no error";
  }

  fakes::LogCapture log_;
  KeyStore keys_;
};

TEST_F(KeyStoreTest, GivesBackWhatWasAdded) {
  keys_.Add("HmacV1", "first secret");
  keys_.Add("HmacV2", std::string("\0with a NUL", 11));
  EXPECT_EQ("first secret", keys_.Get("HmacV1"));
  EXPECT_EQ(std::string("\0with a NUL", 11), keys_.Get("HmacV2"));
}

TEST_F(KeyStoreTest, ReplacesTheValueOfAnExistingId) {
  keys_.Add("HmacV1", "old");
  keys_.Add("HmacV1", "new");
  EXPECT_EQ("new", keys_.Get("HmacV1"));
  EXPECT_EQ(1, log_.Count("KeyStore: Removed Key with id: HmacV1"));
  EXPECT_EQ(2, log_.Count("KeyStore: Added Key with id: HmacV1"));
}

TEST_F(KeyStoreTest, KeepsAnEmptyValue) {
  keys_.Add("KIdV1", "");
  EXPECT_EQ("", keys_.Get("KIdV1"));
}

TEST_F(KeyStoreTest, RefusesAnEmptyId) {
  EXPECT_EQ("Invalid value for key id provided.", ErrorOf([&] { keys_.Add("", "value"); }));
}

TEST_F(KeyStoreTest, NamesTheKeyThatIsMissing) {
  EXPECT_EQ("Key Not Found for id: HmacV1", ErrorOf([&] { (void)keys_.Get("HmacV1"); }));
  EXPECT_EQ("Key not found for id: HmacV1", ErrorOf([&] { keys_.Remove("HmacV1"); }));
}

TEST_F(KeyStoreTest, ForgetsARemovedKey) {
  keys_.Add("HmacV1", "value");
  keys_.Remove("HmacV1");
  EXPECT_EQ("Key Not Found for id: HmacV1", ErrorOf([&] { (void)keys_.Get("HmacV1"); }));
}

TEST_F(KeyStoreTest, LogsNamesAndNeverValues) {
  keys_.Add("HmacV1", "very-secret-value");
  (void)keys_.Get("HmacV1");
  keys_.Remove("HmacV1");
  EXPECT_TRUE(log_.Has("KeyStore: Found Key with id: HmacV1"));
  EXPECT_FALSE(log_.Has("very-secret-value")) << log_.All();
}

}  // namespace
}  // namespace zagent::common::util
