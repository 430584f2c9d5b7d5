#include "tests/src/ioc/protobuf/Schema.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/text_format.h>

#include <fstream>
#include <memory>
#include <stdexcept>

namespace zagent::ioc::internal::protobuf {

namespace pb = google::protobuf;

Schema::Schema() {
  std::ifstream in(OSTREL_DESCRIPTORS, std::ios::binary);
  pb::FileDescriptorSet files;
  if (!files.ParseFromIstream(&in) || files.file_size() != 1) throw std::runtime_error("no " OSTREL_DESCRIPTORS);
  file_ = pool_.BuildFile(files.file(0));
  if (file_ == nullptr) throw std::runtime_error(OSTREL_DESCRIPTORS " contradicts itself");
}

std::string Schema::Text(const std::string& name, const std::string& bytes) {
  const pb::Descriptor* type = file_->FindMessageTypeByName(name);
  if (type == nullptr) throw std::runtime_error("The schema has no " + name);
  const std::unique_ptr<pb::Message> message(factory_.GetPrototype(type)->New());
  if (!message->ParseFromString(bytes)) throw std::runtime_error("Not a " + name);
  message->DiscardUnknownFields();
  if (message->ByteSizeLong() != bytes.size()) throw std::runtime_error("The schema does not know all of this " + name);
  std::string text;
  pb::TextFormat::PrintToString(*message, &text);
  return text;
}

}  // namespace zagent::ioc::internal::protobuf
