#include "src/ioc/protobuf/PlainMessage.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>
#include <string>

#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/src/ioc/protobuf/Schema.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace pb = google::protobuf;
namespace wire = com::ostrel::ioc::model::proto::event;

struct KindOfMessage {
  Kind kind;
  const char* name;
};
constexpr std::array kKinds = {KindOfMessage{Kind::Directory, "DirectoryEvent"}, KindOfMessage{Kind::File, "FileEvent"},
                               KindOfMessage{Kind::LoadedModule, "LoadedModule"},
                               KindOfMessage{Kind::Network, "NetworkEvent"},
                               KindOfMessage{Kind::Process, "ProcessEvent"}};

std::unique_ptr<pb::MessageLite> Parser(Kind kind) {
  switch (kind) {
    case Kind::Directory:
      return std::make_unique<wire::DirectoryEvent>();
    case Kind::File:
      return std::make_unique<wire::FileEvent>();
    case Kind::LoadedModule:
      return std::make_unique<wire::LoadedModule>();
    case Kind::Network:
      return std::make_unique<wire::NetworkEvent>();
    case Kind::Process:
      return std::make_unique<wire::ProcessEvent>();
  }
  return nullptr;
}

void FillActor(wire::Actor& actor) {
  actor.set_type(3);
  actor.set_processid(4711);
  actor.set_uniqueimageid("1d");
  actor.set_securitysettings(R"({"Uid":0})");
  actor.set_userid("0");
  actor.set_username("root");
  actor.set_imagepath("/bin/sh");
  actor.set_creationtime(1'600'000'000'000'000'000);
  actor.set_uniqueprocessid("9f");
  actor.set_threadid(4711);
}

wire::FileEvent File() {
  wire::FileEvent file;
  file.set_eventaction(wire::RENAME);
  file.set_timestamp(1'600'000'000'000'000'000);
  file.set_uniqueid("ab");
  FillActor(*file.mutable_actor());
  file.set_parentdirectoryid("cd");
  file.set_filename("b.sh");
  file.set_sha1("11");
  file.set_sha256("22");
  file.set_md5("33");
  file.set_size(1 << 20);
  file.set_securitysettings(R"({"Uid":0})");
  file.set_type("Script");
  file.set_extension("sh");
  file.set_fullpath("/srv/w/" + std::string(300, 'x') + "/b.sh");
  file.set_oldpath("/srv/w/a.sh");
  return file;
}

wire::ProcessEvent Process() {
  wire::ProcessEvent process;
  process.set_eventaction(wire::RUNNING);
  process.set_uniqueid("ab");
  FillActor(*process.mutable_actor());
  process.set_processname("sh");
  process.set_processid(4711);
  process.set_arguments("sh -c true");
  process.set_uniqueimageid("1d");
  process.set_userid("0");
  process.set_username("root");
  process.set_securitysettings("{}");
  process.set_elevated(true);
  process.set_currentdirectory("/");
  process.set_status("Stop");
  process.set_imagepath("/bin/sh");
  process.set_ondisk(true);
  return process;
}

// One field of bytes.
std::string Field(unsigned number, const std::string& value) {
  std::string field;
  const unsigned tag = number << 3U | 2U;
  if (tag >= 0x80) field += static_cast<char>(0x80U | (tag & 0x7FU));
  field += static_cast<char>(tag >= 0x80 ? tag >> 7U : tag);
  return (field += static_cast<char>(value.size())) + value;
}

TEST(PlainMessageTest, WhatThisProgramTellsOfIsPlain) {
  EXPECT_TRUE(IsPlainMessage(Kind::File, File().SerializeAsString()));
  EXPECT_TRUE(IsPlainMessage(Kind::Process, Process().SerializeAsString()));
  wire::DirectoryEvent directory;
  FillActor(*directory.mutable_actor());
  directory.set_uniqueid("ab");
  directory.set_path("/srv/w");
  directory.set_securitysettings("{}");
  directory.set_creationtime(1);
  EXPECT_TRUE(IsPlainMessage(Kind::Directory, directory.SerializeAsString()));
  wire::NetworkEvent network;
  FillActor(*network.mutable_actor());
  network.set_uniqueid("ab");
  network.set_localaddress("::1");
  network.set_localport(80);
  network.set_remoteaddress("10.0.0.1");
  network.set_remoteport(443);
  network.set_uniqueprocessid("9f");
  EXPECT_TRUE(IsPlainMessage(Kind::Network, network.SerializeAsString()));
  EXPECT_TRUE(IsPlainMessage(Kind::File, ""));
}

TEST(PlainMessageTest, TextsAreWhatTheSchemaCallsTexts) {
  const Schema schema;
  for (const auto& [kind, name] : kKinds) {
    const pb::Descriptor& type = *schema.File().FindMessageTypeByName(name);
    int plain = 0;
    for (unsigned number = 1; number < 70; ++number) {
      // Letters that are no message.
      if (!IsPlainMessage(kind, Field(number, "\x7f"))) continue;
      ++plain;
      const pb::FieldDescriptor* field = type.FindFieldByNumber(static_cast<int>(number));
      ASSERT_NE(field, nullptr) << name << " " << number;
      EXPECT_EQ(field->type(), pb::FieldDescriptor::TYPE_STRING) << field->full_name();
    }
    EXPECT_EQ(plain == 0, kind == Kind::LoadedModule) << name;
    const bool has_plain_actor = IsPlainMessage(kind, Field(4, Field(6, "root")));
    EXPECT_EQ(has_plain_actor, kind != Kind::LoadedModule) << name;
    EXPECT_FALSE(IsPlainMessage(kind, Field(4, "\x7f"))) << name;
    EXPECT_FALSE(IsPlainMessage(kind, Field(4, Field(4, Field(4, ""))))) << "a text that is no ASCII";
  }
}

TEST(PlainMessageTest, WhatIsNoAsciiIsLeftToTheParser) {
  EXPECT_TRUE(IsPlainMessage(Kind::File, Field(36, "/a")));
  EXPECT_FALSE(IsPlainMessage(Kind::File, Field(36, "/\xc3\xa4")));
  EXPECT_FALSE(IsPlainMessage(Kind::File, Field(36, "/\xff")));
  EXPECT_FALSE(IsPlainMessage(Kind::File, Field(36, std::string("/\0", 2))));
  EXPECT_FALSE(IsPlainMessage(Kind::File, Field(4, Field(6, "\xff"))));
}

TEST(PlainMessageTest, LongFormsAreLeftToTheParser) {
  EXPECT_TRUE(IsPlainMessage(Kind::File, "\x50\xff\xff\xff\xff\xff\xff\xff\xff\x7f")) << "the largest number";
  EXPECT_FALSE(IsPlainMessage(Kind::File, "\x50\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01")) << "-1";
  using namespace std::string_literals;
  EXPECT_TRUE(IsPlainMessage(Kind::File, "\x32\x81\x80\x80\x00x"s));
  EXPECT_FALSE(IsPlainMessage(Kind::File, "\x32\x81\x80\x80\x80\x00x"s)) << "the length";
  EXPECT_FALSE(IsPlainMessage(Kind::File, "\xb2\x80\x00\x01x"s)) << "the tag";
  EXPECT_FALSE(IsPlainMessage(Kind::File, "\x02\x01x"s)) << "field 0";
  EXPECT_FALSE(IsPlainMessage(Kind::File, "\x51\x01\x02\x03\x04\x05\x06\x07\x08"s)) << "eight bytes";
  EXPECT_FALSE(IsPlainMessage(Kind::File, "\x33\x34"s)) << "a group";
}

// The batch is one message: an element that is none takes all others with it.
TEST(PlainMessageTest, WhatIsPlainTheParserTakes) {
  std::mt19937 random(4711);  // NOLINT: the same each time
  const std::array<std::pair<Kind, std::string>, 2> messages{
      {{Kind::File, File().SerializeAsString()}, {Kind::Process, Process().SerializeAsString()}}};
  int plain = 0;
  int refused = 0;
  for (int round = 0; round < 40'000; ++round) {
    const auto& [kind, bytes] = messages.at(static_cast<std::size_t>(round) % messages.size());
    std::string changed = bytes;
    for (unsigned change = 0; change <= random() % 3; ++change) {
      if (random() % 4 == 0) {
        changed.resize(random() % (changed.size() + 1));
      } else if (!changed.empty()) {
        changed[random() % changed.size()] = static_cast<char>(random());
      }
    }
    const bool is_taken = Parser(kind)->ParseFromString(changed);
    const bool is_plain = IsPlainMessage(kind, changed);
    ASSERT_TRUE(is_taken || !is_plain) << round;
    plain += is_plain ? 1 : 0;
    refused += is_taken ? 0 : 1;
  }
  EXPECT_GT(plain, 5'000);
  EXPECT_GT(refused, 5'000);
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
