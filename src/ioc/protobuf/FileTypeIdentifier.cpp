#include "src/ioc/protobuf/FileTypeIdentifier.h"

#include <Poco/Exception.h>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal::protobuf {

const FileTypeIdentifier::Patterns& FileTypeIdentifier::KnownTypes() {
  static const Patterns kTypes = {
      {"EICAR Virus Test Files", "EICAR"},
      {"HTML document", "HTML"},
      {"JPEG", "JPEG"},
      {"Perl script text", "PERL"},
      {"Perl script text executable", "PERL"},
      {"Ruby script", "Ruby"},
      {"PHP script", "PHP"},
      {"Python script", "Python"},
      {"script text executable", "Script"},
      {"SQLite", "SQLite"},
      {"XHTML document", "XHTML"},
  };
  return kTypes;
}

FileTypeIdentifier::FileTypeIdentifier(const Patterns& patterns) {
  for (const auto& [pattern, name] : patterns) {
    try {
      types_.push_back(
          {std::make_unique<Poco::RegularExpression>(pattern, Poco::RegularExpression::RE_CASELESS), name});
    } catch (const Poco::Exception& error) {
      ZLOG_ERROR("FileTypeIdentifier: Failed to compile patterns: " << error.displayText());
    }
  }
}

std::string FileTypeIdentifier::Identify(const std::string& description) const {
  const std::string* type = known_.Find(description);
  if (type == nullptr) {
    known_.Put(description, Match(description));
    type = known_.Find(description);
  }
  if (!type->empty()) ZLOG_DEBUG("Matched Type: " << *type);
  return *type;
}

std::string FileTypeIdentifier::Match(const std::string& description) const {
  try {
    for (const Type& type : types_) {
      Poco::RegularExpression::Match match;
      if (type.pattern->match(description, match) != 0) return type.name;
    }
  } catch (const Poco::Exception& error) {
    ZLOG_ERROR("FileTypeIdentifier: Failed to match: " << error.displayText());
  }
  return {};
}

}  // namespace zagent::ioc::internal::protobuf
