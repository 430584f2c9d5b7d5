#include "tools/json-schema/JsonSchema.h"

#include <map>
#include <memory>
#include <stdexcept>

#include "common/src/util/Json.h"
#include "tools/json-schema/Schemas.h"

#include <rapidjson/schema.h>

namespace zagent::tools {
namespace {

using Schema = rapidjson::SchemaDocument;

// The schemas that others refer to by the names of their files.
class Neighbours final : public rapidjson::IRemoteSchemaDocumentProvider {
 public:
  using rapidjson::IRemoteSchemaDocumentProvider::GetRemoteDocument;
  const Schema* GetRemoteDocument(const char* uri, rapidjson::SizeType length) override {
    // RapidJSON leaves out the last character.
    const std::string_view reference(uri, length);
    for (const auto& [name, text] : Schemas()) {
      if ((name + ".schema.json").starts_with(reference)) return &Find(name);
    }
    return nullptr;
  }
  const Schema& Find(const std::string& name) {
    std::unique_ptr<Schema>& known = schemas_[name];
    if (known == nullptr) {
      const auto text = Schemas().find(name);
      if (text == Schemas().end()) throw std::runtime_error("There is no schema " + name);
      rapidjson::Document document;
      common::util::ParseJson(document, text->second);
      if (document.HasParseError()) throw std::runtime_error("The schema " + name + " is no JSON");
      known = std::make_unique<Schema>(document, this);
    }
    return *known;
  }

 private:
  std::map<std::string, std::unique_ptr<Schema>> schemas_;
};

std::string PointerText(const rapidjson::Pointer& pointer) {
  rapidjson::StringBuffer text;
  pointer.Stringify(text);
  return {text.GetString(), text.GetSize()};
}

}  // namespace

std::optional<std::string> FindSchemaFault(const std::string& name, std::string_view json) {
  Neighbours schemas;
  rapidjson::SchemaValidator validator(schemas.Find(name));
  rapidjson::Reader reader;
  rapidjson::MemoryStream bytes(json.data(), json.size());
  rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> stream(bytes);
  const rapidjson::ParseResult result = reader.Parse<common::util::kJsonParseFlags>(stream, validator);
  if (!validator.IsValid()) {
    return PointerText(validator.GetInvalidDocumentPointer()) + ": " + validator.GetInvalidSchemaKeyword();
  }
  if (result.IsError()) return std::string(rapidjson::GetParseError_En(result.Code()));
  return std::nullopt;
}

}  // namespace zagent::tools
