#include "src/ioc/protobuf/DataFormatter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <regex>

#include "src/ioc/protobuf/BatchItem.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/src/ioc/protobuf/Schema.h"
#include "tests/src/ioc/protobuf/SnapshotFixture.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using common::Bytes;
using common::DataFormatterException;
using fakes::WhatOf;
using Poco::Message;

class DataFormatterTest : public testing::Test, protected SnapshotFixture {
 protected:
  std::unique_ptr<DataFormatter> Make(std::int64_t sequence_number = 0) {
    return std::make_unique<DataFormatter>(config_, sequence_number, *snapshot_, proc_.Root());
  }
  static Bytes File(const std::string& path) {
    wire::FileEvent event;
    event.set_fullpath(path);
    return MakeItem(Kind::File, event);
  }
  // One batch of one file.
  static wire::IoCEvent Batch(DataFormatter& formatter) {
    formatter.Append(File("/a"));
    return Finish(formatter);
  }
  static wire::IoCEvent Finish(DataFormatter& formatter) {
    const Bytes payload = formatter.Finish();
    formatter.Clear();
    formatter.OnStored();
    wire::IoCEvent batch;
    EXPECT_TRUE(batch.ParseFromArray(payload.data(), static_cast<int>(payload.size())));
    return batch;
  }
  // Waits for what was queued before.
  std::string Stored(const std::string& name) { return Information(name); }

  fakes::FakeProcFs proc_;
};

TEST_F(DataFormatterTest, ABatchSaysWhoSendsItAndWhichItIs) {
  section_.host_quarantined = true;
  config_.Update(ParsedJson(section_.Text()));
  const auto formatter = Make(41);
  const wire::IoCEvent batch = Batch(*formatter);
  char name[256] = {};
  gethostname(name, sizeof(name) - 1);
  EXPECT_EQ(batch.agent().customerid(), "c");
  EXPECT_EQ(batch.agent().agentid(), "a");
  EXPECT_EQ(batch.agent().computername(), name);
  EXPECT_EQ(batch.agent().platform(), "LINUX");
  EXPECT_TRUE(batch.agent().isquarantine());
  EXPECT_EQ(batch.agent().boottime(), fakes::FakeProcFs::kBootTime);
  EXPECT_EQ(batch.sequenceno(), 42U);
  EXPECT_TRUE(std::regex_match(batch.protofileid(), std::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")));
}

TEST_F(DataFormatterTest, OnlyTheNamedFieldsOfTheHeaderAreSet) {
  const auto formatter = Make(6);
  wire::IoCEvent batch = Batch(*formatter);
  batch.set_protofileid("id");
  batch.mutable_agent()->set_computername("host");
  const std::string bytes = batch.SerializeAsString();
  EXPECT_EQ(Schema().Text("IoCEvent", bytes),
            "agent {\n  customerId: \"c\"\n  agentId: \"a\"\n  computerName: \"host\"\n  platform: \"LINUX\"\n"
            "  bootTime: 1600000000\n}\nprotoFileId: \"id\"\nfileEvent {\n  fullPath: \"/a\"\n}\nsequenceNo: 7\n");
}

TEST_F(DataFormatterTest, EachKindBecomesAnElementOfItsField) {
  const auto formatter = Make();
  wire::DirectoryEvent directory;
  directory.set_path("/d");
  wire::LoadedModule module;
  module.set_modulename("m");
  wire::NetworkEvent network;
  network.set_remoteaddress("10.0.0.1");
  wire::ProcessEvent process;
  process.set_processname("p");
  formatter->Append(MakeItem(Kind::Directory, directory));
  formatter->Append(File("/f"));
  formatter->Append(MakeItem(Kind::LoadedModule, module));
  formatter->Append(MakeItem(Kind::Network, network));
  formatter->Append(MakeItem(Kind::Process, process));
  formatter->Append(File("/g"));
  const wire::IoCEvent batch = Finish(*formatter);
  ASSERT_EQ(batch.directoryevent_size(), 1);
  EXPECT_EQ(batch.directoryevent(0).path(), "/d");
  ASSERT_EQ(batch.fileevent_size(), 2);
  EXPECT_EQ(batch.fileevent(0).fullpath(), "/f");
  EXPECT_EQ(batch.fileevent(1).fullpath(), "/g");
  ASSERT_EQ(batch.loadedmodule_size(), 1);
  EXPECT_EQ(batch.loadedmodule(0).modulename(), "m");
  ASSERT_EQ(batch.networkevent_size(), 1);
  EXPECT_EQ(batch.networkevent(0).remoteaddress(), "10.0.0.1");
  ASSERT_EQ(batch.processevent_size(), 1);
  EXPECT_EQ(batch.processevent(0).processname(), "p");
  for (const char* name : {"directory", "file", "loaded-module", "network", "process"}) {
    EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, std::string("[IOC]: Added ") + name + " event to protobuf cache."));
  }
}

TEST_F(DataFormatterTest, AMessageThatCannotBeParsedIsLostAndTheBatchGoesOn) {
  const char* names[] = {"directory", "file", "loaded-module", "network", "process"};
  const auto formatter = Make();
  formatter->Append(File("/a"));
  const std::size_t size = formatter->Size();
  for (unsigned char kind = 0; kind < 5; ++kind) {
    EXPECT_EQ(WhatOf<DataFormatterException>([&] {
                formatter->Append({kind, 0x0a, 0x7f});
              }),
              std::string("Failed to add ") + names[kind] + " event to protobuf cache.");
  }
  // A text that is not UTF-8: the platform would refuse the whole batch.
  EXPECT_EQ(WhatOf<DataFormatterException>([&] {
              formatter->Append({1, 0x32, 0x01, 0xff});
            }),
            "Failed to add file event to protobuf cache.");
  EXPECT_EQ(formatter->Size(), size);
  formatter->Append(File("/b"));
  const wire::IoCEvent batch = Finish(*formatter);
  EXPECT_EQ(batch.fileevent_size(), 2);
  EXPECT_EQ(batch.directoryevent_size() + batch.loadedmodule_size() + batch.networkevent_size(), 0);
}

TEST_F(DataFormatterTest, AnUnknownKindIsLoggedAndIgnoredAndTheBatchGoesOn) {
  const auto formatter = Make();
  formatter->Append(File("/a"));
  const std::size_t size = formatter->Size();
  formatter->Append({5, 0x0a, 0x01, 'x'});
  formatter->Append({255});
  formatter->Append({});
  EXPECT_EQ(log_.Count("[IOC]: DataFormatter::Append: Ignoring unknown type of event."), 3);
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "Ignoring unknown type of event."));
  EXPECT_EQ(formatter->Size(), size);
  formatter->Append(File("/b"));
  EXPECT_EQ(Finish(*formatter).fileevent_size(), 2);
}

TEST_F(DataFormatterTest, TheSizeIsThatOfTheBatchAtEachMoment) {
  std::mt19937 random(1);  // NOLINT(cert-msc32-c,cert-msc51-cpp)
  const auto formatter = Make();
  EXPECT_EQ(formatter->Size(), 0U);
  for (int round = 0; round < 20; ++round) {
    const unsigned count = 1 + random() % 30;
    for (unsigned i = 0; i < count; ++i) formatter->Append(File(std::string(random() % 40'000, 'x')));
    const std::size_t size = formatter->Size();
    EXPECT_EQ(formatter->Finish().size(), size);
    formatter->Clear();
    EXPECT_EQ(formatter->Size(), 0U);
  }
}

TEST_F(DataFormatterTest, BetweenFinishAndClearThereIsNoBatch) {
  const auto formatter = Make();
  formatter->Append(File("/a"));
  formatter->Finish();
  EXPECT_EQ(WhatOf<DataFormatterException>([&] { formatter->Append(File("/b")); }),
            "DataFormatter::Append: Invalid state.");
  EXPECT_EQ(WhatOf<DataFormatterException>([&] { formatter->Finish(); }), "DataFormatter::Finish: Invalid state.");
  EXPECT_EQ(formatter->Size(), 0U);
  formatter->Clear();
  EXPECT_EQ(Batch(*formatter).sequenceno(), 2U) << "what was refused took no number";
}

TEST_F(DataFormatterTest, EachBatchHasTheNextNumberAndAnIdOfItsOwn) {
  const auto formatter = Make(7);
  const wire::IoCEvent first = Batch(*formatter);
  const wire::IoCEvent second = Batch(*formatter);
  EXPECT_EQ(first.sequenceno(), 8U);
  EXPECT_EQ(second.sequenceno(), 9U);
  EXPECT_NE(first.protofileid(), second.protofileid());
  EXPECT_EQ(Stored("SequenceNumber"), "9");
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "[IOC]: Sequence Number: 8 written to Snapshot DB successfully"));
}

TEST_F(DataFormatterTest, TheNumberIsRememberedWhenTheBatchIsOnDisk) {
  const auto formatter = Make(7);
  SetInformation("SequenceNumber", "7");
  formatter->Append(File("/a"));
  EXPECT_EQ(Stored("SequenceNumber"), "7");
  formatter->Finish();
  formatter->Clear();
  formatter->Append(File("/the next batch"));
  EXPECT_EQ(Stored("SequenceNumber"), "7") << "a kill now would leave the number out";
  formatter->OnStored();
  EXPECT_EQ(Stored("SequenceNumber"), "8");
  formatter->OnStored();
  EXPECT_EQ(Stored("SequenceNumber"), "8");
  EXPECT_EQ(log_.Count("Sequence Number: "), 1);
}

TEST_F(DataFormatterTest, TheNumberOfABatchThatNeverGotToDiskIsMissing) {
  auto formatter = Make(7);
  formatter->Append(File("/a"));
  formatter->Finish();
  formatter.reset();
  EXPECT_EQ(Stored("SequenceNumber"), "8");
}

TEST_F(DataFormatterTest, AFinishWithoutEventsTakesNoNumber) {
  const auto formatter = Make(7);
  EXPECT_TRUE(formatter->Finish().empty());
  formatter->Clear();
  const std::string before = Stored("SequenceNumber");  // behind what would have been queued
  EXPECT_EQ(log_.Count("Sequence Number: "), 0) << before;
  EXPECT_EQ(Batch(*formatter).sequenceno(), 8U);
}

TEST_F(DataFormatterTest, AFormatterThatContinuesFromTheSnapshotLeavesNoGap) {
  Batch(*Make(7));
  EXPECT_EQ(Batch(*Make(std::stoll(Stored("SequenceNumber")))).sequenceno(), 9U);
}

TEST_F(DataFormatterTest, WhatWasNotFinishedIsThrownAwayByClear) {
  const auto formatter = Make();
  formatter->Append(File("/a"));
  formatter->Clear();
  EXPECT_EQ(formatter->Size(), 0U);
  EXPECT_TRUE(formatter->Finish().empty());
}

TEST_F(DataFormatterTest, ANumberThatCannotBeRememberedIsAnError) {
  const auto formatter = Make();
  formatter->Append(File("/a"));
  snapshot_->Execute("DROP TABLE ClientInformation");
  formatter->Finish();
  formatter->OnStored();
  snapshot_->Vacuum();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to write Sequence Number: 1 to Snapshot DB. Error: "));
}

TEST_F(DataFormatterTest, ABootTimeThatIsNotKnownYetIsRemembered) {
  snapshot_->Delete("ClientInformation", "BootTime");
  const auto formatter = Make();
  Batch(*formatter);
  EXPECT_EQ(Stored("BootTime"), "1600000000");
  EXPECT_TRUE(log_.Has(Message::PRIO_DEBUG, "[IOC]: Boot time: 1600000000 written to Snapshot DB successfully"));
}

TEST_F(DataFormatterTest, AChangedBootTimeIsStoredOnceAndInAllBatchesAfterIt) {
  SetInformation("BootTime", "1500000000");
  const auto formatter = Make();
  EXPECT_EQ(Batch(*formatter).agent().boottime(), 1'600'000'000);
  EXPECT_EQ(Batch(*formatter).agent().boottime(), 1'600'000'000);
  EXPECT_EQ(Batch(*formatter).agent().boottime(), 1'600'000'000);
  EXPECT_EQ(Stored("BootTime"), "1600000000");
  EXPECT_EQ(log_.Count("Boot time: "), 1);
}

TEST_F(DataFormatterTest, ABootTimeThatIsTheSameIsNotWritten) {
  SetInformation("BootTime", "1600000000");
  Batch(*Make());
  Stored("BootTime");
  EXPECT_EQ(log_.Count("Boot time: "), 0);
}

TEST_F(DataFormatterTest, ABootTimeThatIsNoNumberLetsNoBatchBegin) {
  const auto formatter = Make(7);
  for (const char* text : {"", "soon", "1600000000 ", "1600000000x", "-", " 1"}) {
    SetInformation("BootTime", text);
    EXPECT_EQ(WhatOf<DataFormatterException>([&] { formatter->Append(File("/a")); }),
              "Protobuf::DataFormatterException: Error in reading boottime from snapshot")
        << text;
  }
  SetInformation("BootTime", "9223372036854775808");
  EXPECT_EQ(WhatOf<DataFormatterException>([&] { formatter->Append(File("/a")); }),
            "Protobuf::DataFormatterException: boottime number out of range.");
  EXPECT_EQ(formatter->Size(), 0U);
  snapshot_->Delete("ClientInformation", "BootTime");
  EXPECT_EQ(Batch(*formatter).sequenceno(), 8U) << "no number was lost";
}

TEST_F(DataFormatterTest, ASnapshotThatCannotBeReadLetsNoBatchBegin) {
  snapshot_->Execute("DROP TABLE ClientInformation");
  const auto formatter = Make();
  EXPECT_EQ(WhatOf<DataFormatterException>([&] { formatter->Append(File("/a")); }),
            "Protobuf::DataFormatterException: Error in reading boottime from snapshot");
}

TEST_F(DataFormatterTest, ABootTimeThatCannotBeRememberedIsAnErrorAndTheBatchHasIt) {
  const auto formatter = Make();
  snapshot_->Execute("CREATE TRIGGER refuse BEFORE INSERT ON ClientInformation BEGIN SELECT RAISE(ABORT, 'no'); END");
  EXPECT_EQ(Batch(*formatter).agent().boottime(), 1'600'000'000);
  snapshot_->Vacuum();
  EXPECT_TRUE(log_.Has(Message::PRIO_ERROR, "[IOC]: Failed to write boot time: 1600000000 to Snapshot DB. Error: "))
      << log_.All();
}

TEST_F(DataFormatterTest, IdentitiesThatAreNoTextAreRepaired) {
  // JSON may hold any bytes in a text.
  const auto common = std::make_unique<common::CommonConfig>(
      ParsedJson(R"({"agent_id":"a","agent_version":"1","ca_cert_path":"/ca","connection_timeout":1,"customer_id":")"
                 "c\xff"
                 R"(","log_config_file":"/log","proxy_order":0,"request_timeout":1,"service_url":"",
                    "activation_id":"x","environment_variables":{},"agent_effective_uid":0,"agent_effective_gid":0,
                    "ipv4":"","ipv6":"","osname":"","platform":"","agent_install_path":"/opt","sudo_command":"",
                    "use_sudo":false})"));
  const Config config(*common, ParsedJson(section_.Text()));
  DataFormatter formatter(config, 0, *snapshot_, proc_.Root());
  EXPECT_EQ(Batch(formatter).agent().customerid(), "c\xEF\xBF\xBD");
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
