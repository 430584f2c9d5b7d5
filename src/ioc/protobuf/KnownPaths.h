#pragma once

#include <cstddef>
#include <string>

#include "src/edr/LRUCache.h"

namespace zagent::ioc::internal::protobuf {

// What the message of a file says of its path alone: a burst names the same files again and again. For one thread.
//
// Bound: kMaxPaths, of which the one that was asked for the longest ago goes; what is longer than kMaxText is not
// remembered.
class KnownPaths {
 public:
  static constexpr std::size_t kMaxPaths = 1'024;
  static constexpr std::size_t kMaxText = 512;

  struct Path {
    std::string id;
    std::string parent;  // the directory of an absolute path; empty when there is none
    std::string parent_id;
    std::string fields;  // of the event of a file, serialised: ids, name, extension and the path itself
  };

  // Valid until the next call.
  [[nodiscard]] const Path& Of(const std::string& path);
  [[nodiscard]] std::size_t GetSize() const { return known_.GetSize(); }
  void Forget() { known_.Clear(); }

 private:
  edr::LRUCache<std::string, Path> known_{kMaxPaths};
  Path made_;
};

}  // namespace zagent::ioc::internal::protobuf
