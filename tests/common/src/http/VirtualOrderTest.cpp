#include "tests/fakes/VirtualOrder.h"

#include <gtest/gtest.h>

#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/HttpPostProcessor.h"
#include "common/src/http/HttpRequest.h"
#include "common/src/http/Uploader.h"

namespace zagent::common {
namespace {

using fakes::VirtualSlot;

TEST(HttpVirtualOrderTest, ARequestHasItsMethodBehindTheDestructorsAndAllElseBeforeThem) {
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetUrl), 0U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetState), 1U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetResponse), 2U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::Cancel), 3U);
  EXPECT_EQ(VirtualSlot(&HttpRequest::GetMethod), 6U);
}

TEST(HttpVirtualOrderTest, AnUploaderUploadsCancelsAndNamesItsTargetRightBehindTheDestructors) {
  EXPECT_EQ(VirtualSlot(&Uploader::Upload), 2U);
  EXPECT_EQ(VirtualSlot(&Uploader::Cancel), 3U);
  EXPECT_EQ(VirtualSlot(&Uploader::GetTarget), 4U);
}

TEST(HttpVirtualOrderTest, AnInterceptorHasItsFourStepsRightBehindTheDestructors) {
  EXPECT_EQ(VirtualSlot(&HttpInterceptor::Clone), 2U);
  EXPECT_EQ(VirtualSlot(&HttpInterceptor::ProcessRequest), 3U);
  EXPECT_EQ(VirtualSlot(&HttpInterceptor::ProcessResponseChunk), 4U);
  EXPECT_EQ(VirtualSlot(&HttpInterceptor::ProcessResponse), 5U);
}

TEST(HttpVirtualOrderTest, APostProcessorProcessesRightBehindTheDestructors) {
  EXPECT_EQ(VirtualSlot(&HttpPostProcessor::Process), 2U);
}

}  // namespace
}  // namespace zagent::common
