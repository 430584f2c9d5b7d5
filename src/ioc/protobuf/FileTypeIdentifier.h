#pragma once

#include <Poco/RegularExpression.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/edr/LRUCache.h"

namespace zagent::ioc::internal::protobuf {

// The name by which the platform knows a type of file, from what libmagic says of it. What has been found in the
// latest 256 descriptions is remembered. For one thread.
class FileTypeIdentifier {
 public:
  // Regular expressions and names: the first that is found anywhere in a description decides. Upper and lower case are
  // one, for libmagic changes its mind about them.
  using Patterns = std::vector<std::pair<std::string, std::string>>;

  // What does not compile is left out, with an Error line.
  explicit FileTypeIdentifier(const Patterns& patterns = KnownTypes());

  // Empty when no pattern is found.
  [[nodiscard]] std::string Identify(const std::string& description) const;

  static const Patterns& KnownTypes();

 private:
  struct Type {
    std::unique_ptr<Poco::RegularExpression> pattern;
    std::string name;
  };
  [[nodiscard]] std::string Match(const std::string& description) const;

  std::vector<Type> types_;
  mutable edr::LRUCache<std::string, std::string> known_{256};
};

}  // namespace zagent::ioc::internal::protobuf
