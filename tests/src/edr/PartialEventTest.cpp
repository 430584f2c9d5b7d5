#include "src/edr/PartialEvent.h"

#include <gtest/gtest.h>

#include <functional>

#include "src/edr/RecordFields.h"

namespace zagent::edr {
namespace {

// An event that answers only what it must.
class BareEvent final : public PartialEvent {
 public:
  [[nodiscard]] EventType GetType() const override { return EventType::AbnormalEnd; }
  [[nodiscard]] std::string GetAction() const override { return "Abort"; }
  [[nodiscard]] std::uint32_t GetId() const override { return 0; }
  [[nodiscard]] ObjectType GetObjectType() const override { return ObjectType::Process; }
  [[nodiscard]] std::int64_t GetTimestamp() const override { return 0; }
  [[nodiscard]] const std::string& GetAuditKey() const override { return key_; }
  void Validate() override {}

 private:
  std::string key_;
};

template <typename Call>
std::string ErrorOf(Call call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST(PartialEventTest, RefusesEveryQuestionThatItCannotAnswerInTheKnownWords) {
  BareEvent event;
  const Event& asked = event;
  const std::vector<std::pair<std::string, std::function<void()>>> questions = {
      {"Clone is not implemented", [&] { static_cast<void>(asked.Clone()); }},
      {"GetActorEuid is not implemented", [&] { static_cast<void>(asked.GetActorEuid()); }},
      {"GetActorProcessArguments is not implemented", [&] { static_cast<void>(asked.GetActorProcessArguments()); }},
      {"GetActorProcessId is not implemented", [&] { static_cast<void>(asked.GetActorProcessId()); }},
      {"GetActorParentProcessId is not implemented", [&] { static_cast<void>(asked.GetActorParentProcessId()); }},
      {"GetActorUserName is not implemented", [&] { static_cast<void>(asked.GetActorUserName()); }},
      {"GetActorUserId is not implemented", [&] { static_cast<void>(asked.GetActorUserId()); }},
      {"GetActorLoginName is not implemented", [&] { static_cast<void>(asked.GetActorLoginName()); }},
      {"GetActorAuid is not implemented", [&] { static_cast<void>(asked.GetActorAuid()); }},
      {"GetCommandLine not implemented", [&] { static_cast<void>(asked.GetCommandLine()); }},
      {"GetFile not implemented", [&] { static_cast<void>(asked.GetFile()); }},
      {"GetFileAccessTime is not implemented", [&] { static_cast<void>(asked.GetFileAccessTime()); }},
      {"GetFileChangeTime is not implemented", [&] { static_cast<void>(asked.GetFileChangeTime()); }},
      {"GetFileContent is not implemented", [&] { static_cast<void>(asked.GetFileContent()); }},
      {"GetFileContentHash is not implemented", [&] { static_cast<void>(asked.GetFileContentHash(ContentHash::Md5)); }},
      {"GetFileModificationTime is not implemented", [&] { static_cast<void>(asked.GetFileModificationTime()); }},
      {"GetFileSize is not implemented", [&] { static_cast<void>(asked.GetFileSize()); }},
      {"GetFileType is not implemented", [&] { static_cast<void>(asked.GetFileType()); }},
      {"GetFileTypeDesc is not implemented", [&] { static_cast<void>(asked.GetFileTypeDesc()); }},
      {"GetImage not implemented", [&] { static_cast<void>(asked.GetImage()); }},
      {"GetNewFile not implemented", [&] { static_cast<void>(asked.GetNewFile()); }},
      {"GetParentInode is not implemented", [&] { static_cast<void>(asked.GetParentInode()); }},
      {"GetParentDeviceID is not implemented", [&] { static_cast<void>(asked.GetParentDeviceID()); }},
      {"GetCwd is not implemented", [&] { static_cast<void>(asked.GetCwd()); }},
      {"GetSecondaryImage not implemented", [&] { static_cast<void>(asked.GetSecondaryImage()); }},
      {"GetNetworkAddress is not implemented", [&] { static_cast<void>(asked.GetNetworkAddress()); }},
      {"GetNetworkPort is not implemented", [&] { static_cast<void>(asked.GetNetworkPort()); }},
      {"GetFileReadStatus is not implemented", [&] { static_cast<void>(asked.GetFileReadStatus()); }},
      {"IsSymlink is not implemented", [&] { static_cast<void>(asked.IsSymlink()); }},
      {"IsElevated is not implemented", [&] { static_cast<void>(asked.IsElevated()); }},
      {"Refresh is not implemented", [&] { event.Refresh(); }},
      {"UpdateActorProcessId is not implemented", [&] { event.UpdateActorProcessId(1); }},
  };
  for (const auto& [text, ask] : questions) EXPECT_EQ(ErrorOf(ask), text);
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_TRUE(event.IsSuccessful());
}

TEST(PartialEventTest, TakesNothingFromARecord) {
  BareEvent event;
  EXPECT_NO_THROW(event.ParseRecord(1300, RecordFields()));
}

}  // namespace
}  // namespace zagent::edr
