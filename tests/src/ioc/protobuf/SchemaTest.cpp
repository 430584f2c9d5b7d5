#include "tests/src/ioc/protobuf/Schema.h"

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/fakes/TestData.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace pb = google::protobuf;

// In the form of tests/data/ioc/schema.txt.
class Printer {
 public:
  std::string Print(const pb::FileDescriptor& file) {
    for (int i = 0; i < file.message_type_count(); ++i) Print(*file.message_type(i), "");
    for (int i = 0; i < file.enum_type_count(); ++i) Print(*file.enum_type(i));
    return text_;
  }
  [[nodiscard]] int FieldCount() const { return field_count_; }

 private:
  void Print(const pb::Descriptor& message, const std::string& outer) {
    const std::string name = outer + message.name();
    text_ += name + "\n";
    for (int i = 0; i < message.field_count(); ++i) Print(*message.field(i));
    for (int i = 0; i < message.nested_type_count(); ++i) Print(*message.nested_type(i), name + ".");
    EXPECT_EQ(message.enum_type_count(), 0);
    EXPECT_EQ(message.real_oneof_decl_count(), 0);
  }
  void Print(const pb::FieldDescriptor& field) {
    text_ += "  " + std::to_string(field.number()) + " " + field.name() + " " + TypeOf(field);
    text_ += field.is_repeated() ? " repeated\n" : "\n";
    EXPECT_FALSE(field.has_optional_keyword()) << field.full_name();
    if (!field.containing_type()->options().map_entry()) ++field_count_;
  }
  void Print(const pb::EnumDescriptor& type) {
    text_ += "enum " + type.name() + "\n";
    for (int i = 0; i < type.value_count(); ++i) {
      text_ += "  " + std::to_string(type.value(i)->number()) + " " + type.value(i)->name() + "\n";
    }
  }
  static std::string TypeOf(const pb::FieldDescriptor& field) {
    if (field.type() == pb::FieldDescriptor::TYPE_ENUM) return field.enum_type()->name();
    if (field.type() != pb::FieldDescriptor::TYPE_MESSAGE) return field.type_name();
    return field.message_type()->full_name().substr(field.file()->package().size() + 1);
  }

  std::string text_;
  int field_count_ = 0;
};

TEST(SchemaTest, EveryFieldHasTheNumberTheTypeAndTheLabelThatThePlatformKnows) {
  std::ifstream file(fakes::TestData("ioc/schema.txt"));
  const std::string expected{std::istreambuf_iterator<char>(file), {}};
  ASSERT_FALSE(expected.empty());
  const Schema schema;
  Printer printer;
  EXPECT_EQ(printer.Print(schema.File()), expected);
  EXPECT_EQ(printer.FieldCount(), 274);
}

TEST(SchemaTest, ThePlatformFindsItsClassesUnderTheirNames) {
  Schema schema;
  EXPECT_EQ(schema.File().syntax(), pb::FileDescriptor::SYNTAX_PROTO3);
  EXPECT_EQ(schema.File().package(), "com.ostrel.ioc.model.proto.event");
  EXPECT_EQ(schema.File().options().java_package(), "com.ostrel.ioc.model.proto.event");
  EXPECT_EQ(schema.File().options().java_outer_classname(), "IoC");
}

TEST(SchemaTest, ACertificateHasNoFieldWithTheNumberFour) {
  Schema schema;
  EXPECT_EQ(schema.File().FindMessageTypeByName("CertificateEvent")->FindFieldByNumber(4), nullptr);
}

TEST(SchemaTest, ThePropertiesOfAPdfAreAMap) {
  Schema schema;
  const auto* field = schema.File().FindMessageTypeByName("FileEvent")->FindFieldByName("pdfMetadata");
  ASSERT_NE(field, nullptr);
  EXPECT_TRUE(field->is_map());
  com::ostrel::ioc::model::proto::event::FileEvent event;
  (*event.mutable_pdfmetadata())["pages"] = 3;
  EXPECT_EQ(schema.Text("FileEvent", event.SerializeAsString()), "pdfMetadata {\n  key: \"pages\"\n  value: 3\n}\n");
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
