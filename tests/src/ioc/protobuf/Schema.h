#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/dynamic_message.h>

#include <string>

#include "common/src/storage/StorageResult.h"

namespace zagent::ioc::internal::protobuf {

// The schema as its file says it, read by the whole runtime: a view of the program's messages that owes nothing to the
// classes which the program uses.
class Schema {
 public:
  Schema();

  [[nodiscard]] const google::protobuf::FileDescriptor& File() const { return *file_; }

  // A serialised message of the schema in the text format. Throws std::runtime_error for what is none, and for one
  // that holds what the schema does not know.
  std::string Text(const std::string& name, const std::string& bytes);
  // Of an item of the spool, without its kind.
  std::string ItemText(const std::string& name, const std::string& item) { return Text(name, item.substr(1)); }
  std::string BatchText(const common::Bytes& batch) { return Text("IoCEvent", {batch.begin(), batch.end()}); }

 private:
  google::protobuf::DescriptorPool pool_;
  google::protobuf::DynamicMessageFactory factory_{&pool_};
  const google::protobuf::FileDescriptor* file_ = nullptr;
};

}  // namespace zagent::ioc::internal::protobuf
