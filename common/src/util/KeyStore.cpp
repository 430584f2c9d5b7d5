#include "common/src/util/KeyStore.h"

#include "common/src/util/Concealment.h"
#include "common/src/util/Log.h"

namespace zagent::common::util {
namespace {

constexpr unsigned char kConcealingByte = 0xa7;

}  // namespace

void KeyStore::Add(const std::string& id, const std::string& value) {
  if (id.empty()) throw KeyStoreException("Invalid value for key id provided.");
  std::string concealed;
  try {
    concealed = Conceal(value, kConcealingByte);
  } catch (const XORException& error) {
    throw KeyStoreException(std::string("Key concealment failed: ") + error.what());
  }
  const std::lock_guard lock(mutex_);
  if (concealed_.erase(id) != 0) ZLOG_DEBUG("KeyStore: Removed Key with id: " << id);
  concealed_[id] = std::move(concealed);
  ZLOG_DEBUG("KeyStore: Added Key with id: " << id);
}

std::string KeyStore::Get(const std::string& id) const {
  const std::lock_guard lock(mutex_);
  const auto entry = concealed_.find(id);
  if (entry == concealed_.end()) throw KeyStoreException("Key Not Found for id: " + id);
  ZLOG_DEBUG("KeyStore: Found Key with id: " << id);
  try {
    return Reveal(entry->second, kConcealingByte);
  } catch (const XORException& error) {
    throw KeyStoreException(std::string("Key reveal failed: ") + error.what());
  }
}

void KeyStore::Remove(const std::string& id) {
  const std::lock_guard lock(mutex_);
  if (concealed_.erase(id) == 0) throw KeyStoreException("Key not found for id: " + id);
  ZLOG_DEBUG("KeyStore: Removed Key with id: " << id);
}

}  // namespace zagent::common::util
