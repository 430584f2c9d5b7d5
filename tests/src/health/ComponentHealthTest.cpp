#include "src/health/ComponentHealth.h"

#include <gmock/gmock.h>

#include "tests/fakes/FakeHealthReporter.h"

namespace zagent::health {
namespace {

using testing::ElementsAre;

class ComponentHealthTest : public testing::Test {
 protected:
  fakes::FakeHealthReporter reporter_;
  ComponentHealth fim_{reporter_, ComponentHealth::Kind::Fim};
  ComponentHealth ioc_{reporter_, ComponentHealth::Kind::Ioc};
};

TEST_F(ComponentHealthTest, IsGoodOnlyWhileTheComponentWorks) {
  fim_.Started();
  fim_.Disabled();
  fim_.Stopped();
  fim_.Failed("no folder");
  EXPECT_THAT(reporter_.Lines(),
              ElementsAre("4001 FIM 1 component=started", "4001 FIM 0 component=disabled",
                          "4001 FIM 0 component=stopped", "4001 FIM 0 component=failed reason=no folder"));
}

TEST_F(ComponentHealthTest, NamesAManifestByItsPath) {
  fim_.ManifestApplied("/etc/one.json");
  fim_.ManifestFailed("/etc/two.json", "not to be read");
  EXPECT_THAT(reporter_.Lines(), ElementsAre("4002 /etc/one.json 1 manifest=applied",
                                             "4002 /etc/two.json 0 manifest=failed reason=not to be read"));
}

TEST_F(ComponentHealthTest, TellsTheIdOfAnUploadAsADetail) {
  fim_.Uploaded(true, "202", "id-1");
  fim_.Uploaded(false, "500", "id-2");
  EXPECT_THAT(reporter_.Lines(), ElementsAre("4003 FIM 1 httpStatus=202 correlationId=id-1",
                                             "4003 FIM 0 httpStatus=500 correlationId=id-2"));
  EXPECT_EQ(reporter_.Statuses()[0].details, (Fields{{"correlationId", "id-1"}}));
}

TEST_F(ComponentHealthTest, HasCodesOfItsOwnForEachComponent) {
  ioc_.Started();
  ioc_.ManifestApplied("/etc/one.json");
  ioc_.Uploaded(true, "200", "id");
  EXPECT_THAT(reporter_.Lines(), ElementsAre("4101 IOC 1 component=started", "4102 /etc/one.json 1 manifest=applied",
                                             "4103 IOC 1 httpStatus=200 correlationId=id"));
}

TEST_F(ComponentHealthTest, CountsWhatASpoolRefusedOrRemovedAndWhatWasDropped) {
  fim_.CountRefused();
  ioc_.CountRefused(3);
  EXPECT_EQ(reporter_.Refused(), 4U);
  fim_.CountRemovedFile(100);
  ioc_.CountRemovedFile(23);
  EXPECT_THAT(reporter_.RemovedFiles(), ElementsAre(100, 23));
  ioc_.CountDropped();
  ioc_.CountDropped(5);
  EXPECT_EQ(reporter_.Dropped(), 6U);
}

}  // namespace
}  // namespace zagent::health
