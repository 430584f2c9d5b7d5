#pragma once

#include <map>
#include <mutex>
#include <stdexcept>
#include <string>

namespace zagent::common::util {

class KeyStoreException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Authentication secrets by name, concealed in memory: in the clear only for the moment of their use. Thread-safe.
// Values are never logged; names are.
class KeyStore {
 public:
  // Replaces an existing entry. Throws KeyStoreException "Invalid value for key id provided." for an empty id,
  // "Key concealment failed: ..." otherwise.
  void Add(const std::string& id, const std::string& value);
  // The caller cleanses the value (util::Cleanse) as soon as it is used. Throws KeyStoreException "Key Not Found for
  // id: ..." or "Key reveal failed: ...".
  [[nodiscard]] std::string Get(const std::string& id) const;
  // Throws KeyStoreException "Key not found for id: ...".
  void Remove(const std::string& id);

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::string> concealed_;
};

}  // namespace zagent::common::util
